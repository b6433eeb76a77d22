// The network interfaces of a host, and whom it asks for names.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

struct InterfaceAddress
{
  std::string interface;
  std::string address; // with the length of its prefix: "192.0.2.2/24"
};

// Those of all interfaces of this host, IPv4 before IPv6; none, with a log line, when
// the system does not tell them.
std::vector<InterfaceAddress> readAddresses();

using ReadAddresses = std::function<std::vector<InterfaceAddress>()>;

// Empty and absent members are not known.
struct NetworkInterface
{
  std::string name;
  std::string kind; // "ethernet", "bridge"
  std::string state;
  std::string mac;
  std::optional<std::uint64_t> mtu;   // bytes
  std::optional<std::uint64_t> speed; // Mb/s
  std::string master;                 // the bridge or bond that it is part of
  std::vector<std::string> addresses;
  std::vector<std::string> gateways; // of the default routes through it, the preferred first
};

struct NameService
{
  std::vector<std::string> servers;
  std::vector<std::string> domains; // that are searched
};

struct Network
{
  NameService names;
  std::vector<NetworkInterface> interfaces; // by name
};

// From root/sys/class/net, root/proc/net and root/etc/resolv.conf, and the addresses
// from whoever knows them: no file says which interface has which. What is missing or
// damaged is left out.
Network collectNetwork(std::string const& root, ReadAddresses const& addresses = readAddresses);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
