#include "ozf/orb/SelfConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <charconv>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

using End = std::pair<std::string, in_port_t>; // address and port

// An IPv4 address in the clothes of an IPv6 one is the same address.
std::optional<End> endOf(sockaddr_storage const& storage)
{
  char text[INET6_ADDRSTRLEN] = "";
  if (storage.ss_family == AF_INET)
  {
    sockaddr_in address{};
    std::memcpy(&address, &storage, sizeof address);
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return End(text, address.sin_port);
  }
  if (storage.ss_family != AF_INET6)
    return {};
  sockaddr_in6 address{};
  std::memcpy(&address, &storage, sizeof address);
  if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr))
    inet_ntop(AF_INET, &address.sin6_addr.s6_addr[12], text, sizeof text);
  else
    inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text);
  return End(text, address.sin6_port);
}

template <class Ask>
std::optional<End> ask(Ask const& call, int fd)
{
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (call(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0)
    return {};
  return endOf(storage);
}

} // namespace

bool isConnectedWithItself(std::string const& address)
{
  std::error_code failed;
  std::set<std::pair<End, End>> connections;
  for (std::filesystem::directory_iterator entry("/proc/self/fd", failed), end;
       !failed && entry != end; entry.increment(failed))
  {
    std::string const name = entry->path().filename();
    int fd = -1;
    if (std::from_chars(name.data(), name.data() + name.size(), fd).ec != std::errc())
      continue;
    // Ends that are no connections, or gone by now, answer neither.
    auto const here = ask(getsockname, fd);
    auto const there = here ? ask(getpeername, fd) : std::nullopt;
    if (!there)
      continue;
    if (connections.contains({*there, *here}) &&
        (here->first == address || there->first == address))
      return true;
    connections.emplace(*here, *there);
  }
  return false;
}

} // namespace Quillon::Tessarine::Ozf
