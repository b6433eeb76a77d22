// The sockets on which a host waits for others.

#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

struct Listener
{
  std::string protocol; // "tcp" or "udp"
  std::string address;  // "0.0.0.0", "::"
  std::uint16_t port = 0;
  std::string process; // the names of those that have it, with ", " between them; any bytes
  std::string user;    // a name, or the number of one that has none

  auto operator<=>(Listener const&) const = default;
};

// What listens by root/proc/net, sorted; sockets that differ in nothing that is told
// count once. The processes are looked for in root/proc, for at most budget, and found
// as far as this process may look into others; names of users are those of
// root/etc/passwd, since a directory on the network may not answer.
std::vector<Listener>
collectListeners(std::string const& root,
                 std::chrono::milliseconds budget = std::chrono::milliseconds(2000));

// "tcp 127.0.0.1:25", "udp [::]:123".
std::string nameOf(Listener const& listener);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
