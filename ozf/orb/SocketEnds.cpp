#include "ozf/orb/SocketEnds.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace Quillon::Tessarine::Ozf
{

namespace
{

std::optional<SocketEnd> endOf(sockaddr_storage const& storage)
{
  char text[INET6_ADDRSTRLEN] = "";
  if (storage.ss_family == AF_INET)
  {
    sockaddr_in address{};
    std::memcpy(&address, &storage, sizeof address);
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return SocketEnd{text, ntohs(address.sin_port)};
  }
  if (storage.ss_family != AF_INET6)
    return {};
  sockaddr_in6 address{};
  std::memcpy(&address, &storage, sizeof address);
  if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr))
    inet_ntop(AF_INET, &address.sin6_addr.s6_addr[12], text, sizeof text);
  else
    inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text);
  return SocketEnd{text, ntohs(address.sin6_port)};
}

template <class Ask>
std::optional<SocketEnd> ask(Ask const& call, int descriptor)
{
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (call(descriptor, reinterpret_cast<sockaddr*>(&storage), &length) != 0)
    return {};
  return endOf(storage);
}

} // namespace

std::optional<SocketEnd> ownEnd(int descriptor) { return ask(getsockname, descriptor); }

std::optional<SocketEnd> peerEnd(int descriptor) { return ask(getpeername, descriptor); }

} // namespace Quillon::Tessarine::Ozf
