#include "explorers/NetworkCollector.h"

#include "discovery/DiscoveryLog.h"
#include "explorers/FactFiles.h"
#include "ozf/base/SystemError.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if_arp.h>
#include <net/route.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "NetworkCollector";

// Of each table of the kernel: a router may have millions of routes, but what is
// looked for here comes first.
constexpr std::uint64_t TABLE_LIMIT = 1U << 20U;

template <class Address>
std::string toText(int family, Address const& address)
{
  std::array<char, INET6_ADDRSTRLEN> text = {};
  return inet_ntop(family, &address, text.data(), text.size()) == nullptr ? "" : text.data();
}

template <class Number>
std::optional<Number> parseHex(std::string_view text)
{
  Number number = 0;
  char const* const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number, 16);
  if (error != std::errc() || stop != end)
    return std::nullopt;
  return number;
}

template <class Address>
int prefixLength(Address const& mask)
{
  std::array<unsigned char, sizeof mask> bytes;
  std::memcpy(bytes.data(), &mask, sizeof mask);
  int length = 0;
  for (unsigned char const byte : bytes)
    length += std::popcount(byte);
  return length;
}

// Empty for an address of another family.
std::string withPrefix(ifaddrs const& entry, int family)
{
  if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != family)
    return "";
  std::string text;
  int length = -1;
  auto const take = [&](auto* address, auto* mask, auto member)
  {
    text = toText(family, address->*member);
    if (mask != nullptr)
      length = prefixLength(mask->*member);
  };
  if (family == AF_INET)
    take(reinterpret_cast<sockaddr_in const*>(entry.ifa_addr),
         reinterpret_cast<sockaddr_in const*>(entry.ifa_netmask), &sockaddr_in::sin_addr);
  else
    take(reinterpret_cast<sockaddr_in6 const*>(entry.ifa_addr),
         reinterpret_cast<sockaddr_in6 const*>(entry.ifa_netmask), &sockaddr_in6::sin6_addr);
  return length < 0 ? text : text + '/' + std::to_string(length);
}

// The value of a line of an uevent file.
std::string eventValue(std::string const& root, std::string const& folder, std::string const& key)
{
  for (auto const& [name, value] : parsePairs(readFact(root, folder + "/uevent").value_or(""), '='))
    if (name == key)
      return value;
  return "";
}

std::string kindOf(std::string const& root, std::string const& folder)
{
  constexpr std::uint64_t GRE_OVER_IP6 = 823; // which the C library does not list
  // What the driver calls it: "bridge", "bond", "vlan", "wlan", "vxlan", "wireguard".
  if (auto type = eventValue(root, folder, "DEVTYPE"); !type.empty())
    return type == "wlan" ? "wireless" : type;
  auto const type = readNumber(root, folder + "/type");
  if (type == ARPHRD_LOOPBACK)
    return "loopback";
  if (type == ARPHRD_TUNNEL || type == ARPHRD_TUNNEL6 || type == ARPHRD_SIT ||
      type == ARPHRD_IPGRE || type == GRE_OVER_IP6 || type == ARPHRD_NONE)
    return "tunnel";
  // Only what stands for a device on a bus has a link to it.
  if (!readLink(below(root, folder + "/device")))
    return "virtual";
  if (type == ARPHRD_ETHER)
    return "ethernet";
  return type == ARPHRD_INFINIBAND ? "infiniband" : "other";
}

std::string macOf(std::string const& root, std::string const& folder)
{
  auto const mac = readFact(root, folder + "/address").value_or("");
  return mac.find_first_not_of("0:") == std::string::npos ? "" : mac;
}

std::string baseName(std::string const& path) { return path.substr(path.rfind('/') + 1); }

NetworkInterface readInterface(std::string const& root, std::string const& name)
{
  std::string const folder = "sys/class/net/" + name;
  NetworkInterface found;
  found.name = name;
  found.kind = kindOf(root, folder);
  found.state = readFact(root, folder + "/operstate").value_or("");
  found.mac = macOf(root, folder);
  found.mtu = readNumber(root, folder + "/mtu");
  // What is down has none to read, and what cannot know says -1 or, before
  // version 5.3 of the kernel, the same as a number without sign.
  constexpr std::uint64_t UNKNOWN_SPEED = 0xFFFFFFFF;
  if (found.state != "down")
    found.speed = readNumber(root, folder + "/speed");
  if (found.speed == 0U || found.speed == UNKNOWN_SPEED)
    found.speed.reset();
  found.master = baseName(readLink(below(root, folder + "/master")).value_or(""));
  return found;
}

struct Gateway
{
  std::uint64_t metric;
  std::string address;
};

using Gateways = std::multimap<std::string, Gateway>; // by interface

// Of the main table. Numbers are those of addresses as they lie in memory.
void readGateways4(std::string const& root, Gateways& gateways)
{
  enum Column
  {
    INTERFACE,
    DESTINATION,
    GATEWAY,
    FLAGS,
    METRIC = 6,
    MASK,
    COLUMNS
  };
  readLines(
      root, "proc/net/route", TABLE_LIMIT,
      [&](std::string_view line)
      {
        auto const words = wordsOf(line);
        if (words.size() < COLUMNS)
          return true;
        auto const flags = parseHex<unsigned>(words[FLAGS]).value_or(0);
        auto const address = parseHex<std::uint32_t>(words[GATEWAY]);
        auto const metric = parseNumber(words[METRIC]);
        if (words[DESTINATION] != "00000000" || words[MASK] != "00000000" ||
            (flags & RTF_UP) == 0 || (flags & RTF_GATEWAY) == 0 || !address || !metric)
          return true;
        gateways.emplace(words[INTERFACE], Gateway{*metric, toText(AF_INET, in_addr{*address})});
        return true;
      });
}

std::optional<in6_addr> parseAddress6(std::string_view text)
{
  in6_addr address = {};
  if (text.size() != 2 * sizeof address.s6_addr)
    return std::nullopt;
  for (std::size_t i = 0; i < sizeof address.s6_addr; ++i)
  {
    auto const byte = parseHex<std::uint8_t>(text.substr(2 * i, 2));
    if (!byte)
      return std::nullopt;
    address.s6_addr[i] = *byte;
  }
  return address;
}

void readGateways6(std::string const& root, Gateways& gateways)
{
  enum Column
  {
    DESTINATION,
    LENGTH,
    GATEWAY = 4,
    METRIC,
    FLAGS = 8,
    INTERFACE,
    COLUMNS
  };
  readLines(root, "proc/net/ipv6_route", TABLE_LIMIT,
            [&](std::string_view line)
            {
              auto const words = wordsOf(line);
              if (words.size() < COLUMNS)
                return true;
              auto const flags = parseHex<unsigned>(words[FLAGS]).value_or(0);
              auto const destination = parseAddress6(words[DESTINATION]);
              auto const address = parseAddress6(words[GATEWAY]);
              auto const metric = parseHex<std::uint32_t>(words[METRIC]);
              if (!destination || !IN6_IS_ADDR_UNSPECIFIED(&*destination) ||
                  words[LENGTH] != "00" || (flags & RTF_UP) == 0 || (flags & RTF_GATEWAY) == 0 ||
                  !address || !metric)
                return true;
              gateways.emplace(words[INTERFACE], Gateway{*metric, toText(AF_INET6, *address)});
              return true;
            });
}

std::vector<std::string> addressesOf(Gateways const& gateways, std::string const& interface)
{
  auto const [first, last] = gateways.equal_range(interface);
  std::vector<Gateway> sorted;
  for (auto entry = first; entry != last; ++entry)
    sorted.push_back(entry->second);
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](Gateway const& a, Gateway const& b) { return a.metric < b.metric; });
  std::vector<std::string> addresses;
  for (auto const& gateway : sorted)
    addresses.push_back(gateway.address);
  return addresses;
}

NameService readNameService(std::string const& root, std::string const& path)
{
  NameService names;
  readLines(root, path, TABLE_LIMIT,
            [&](std::string_view line)
            {
              auto const words = wordsOf(line);
              if (words.size() < 2)
                return true;
              if (words[0] == "nameserver")
                names.servers.emplace_back(words[1]);
              else if (words[0] == "search" || words[0] == "domain") // the last one holds
                names.domains.assign(words.begin() + 1, words.end());
              return true;
            });
  return names;
}

// A resolver on the host itself says elsewhere whom it asks.
NameService collectNames(std::string const& root)
{
  auto names = readNameService(root, "etc/resolv.conf");
  bool const stub = std::any_of(names.servers.begin(), names.servers.end(),
                                [](std::string const& server)
                                { return server == "127.0.0.53" || server == "127.0.0.54"; });
  if (!stub)
    return names;
  auto real = readNameService(root, "run/systemd/resolve/resolv.conf");
  return real.servers.empty() ? names : real;
}

} // namespace

std::vector<InterfaceAddress> readAddresses()
{
  std::vector<InterfaceAddress> addresses;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "readAddresses",
            "Cannot read the addresses of this host: " << errorText(errno));
    return addresses;
  }
  std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> const owner(list, freeifaddrs);
  for (int const family : {AF_INET, AF_INET6})
    for (ifaddrs const* entry = list; entry != nullptr; entry = entry->ifa_next)
      if (auto const text = withPrefix(*entry, family); !text.empty())
      {
        // A second address may go by a label, the interface's name and a colon.
        std::string const name = entry->ifa_name;
        addresses.push_back({name.substr(0, name.find(':')), text});
      }
  return addresses;
}

Network collectNetwork(std::string const& root, ReadAddresses const& addresses)
{
  Network network;
  network.names = collectNames(root);
  std::map<std::string, NetworkInterface> interfaces;
  for (std::string const& name : namesIn(root, "sys/class/net"))
    // Beside the interfaces there is a file by which bonds are made.
    if (readFact(root, "sys/class/net/" + name + "/ifindex"))
      interfaces.emplace(name, readInterface(root, name));
  for (auto const& entry : addresses())
  {
    auto& found = interfaces[entry.interface]; // where the folder is hidden, there is none yet
    found.name = entry.interface;
    found.addresses.push_back(entry.address);
  }
  Gateways gateways;
  readGateways4(root, gateways);
  readGateways6(root, gateways);
  for (auto& [name, found] : interfaces)
  {
    found.gateways = addressesOf(gateways, name);
    network.interfaces.push_back(std::move(found));
  }
  return network;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
