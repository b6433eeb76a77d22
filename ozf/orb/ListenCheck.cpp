#include "ozf/orb/ListenCheck.h"

#include "ozf/base/SystemError.h"
#include "ozf/orb/Endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <optional>

namespace Quillon::Tessarine::Ozf
{

namespace
{

struct SocketAddress
{
  sockaddr_storage storage{};
  socklen_t length = 0;
};

std::optional<SocketAddress> parseAddress(std::string const& address, unsigned short port)
{
  SocketAddress result;
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  if (inet_pton(AF_INET, address.c_str(), &v4.sin_addr) == 1)
  {
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    std::memcpy(&result.storage, &v4, sizeof v4);
    result.length = sizeof v4;
    return result;
  }
  if (inet_pton(AF_INET6, address.c_str(), &v6.sin6_addr) == 1)
  {
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    std::memcpy(&result.storage, &v6, sizeof v6);
    result.length = sizeof v6;
    return result;
  }
  return std::nullopt;
}

std::string bracketed(std::string const& address)
{
  return address.find(':') == std::string::npos ? address : "[" + address + "]";
}

// 0, or the errno value of what failed.
int tryListen(SocketAddress const& address)
{
  UniqueFd const fd(socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid())
    return errno;
  int const on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  auto const* generic = reinterpret_cast<sockaddr const*>(&address.storage);
  if (bind(fd.get(), generic, address.length) != 0 || listen(fd.get(), 1) != 0)
    return errno;
  return 0;
}

bool canListenOn(std::string const& address, unsigned short port, std::string& error)
{
  auto const parsed = parseAddress(address, port);
  int const failure = parsed ? tryListen(*parsed) : EINVAL;
  if (failure == 0)
    return true;
  error = "Unable to listen on " + bracketed(address) + ":" + std::to_string(port) + ": " +
          errorText(failure);
  return false;
}

} // namespace

std::vector<std::string> makeEndPoints(std::vector<std::string> const& addresses,
                                       unsigned short port)
{
  std::string const start = WATCHED_TCP + std::string(":");
  std::string end(":");
  if (port != 0)
    end += std::to_string(port);
  if (addresses.empty())
    return {start + end};
  std::vector<std::string> endPoints;
  endPoints.reserve(addresses.size());
  for (auto const& address : addresses)
    endPoints.push_back(std::string(start).append(bracketed(address)).append(end));
  return endPoints;
}

bool canListen(std::vector<std::string> const& addresses, unsigned short port, std::string& error)
{
  if (addresses.empty())
    return canListenOn("0.0.0.0", port, error);
  for (auto const& address : addresses)
    if (!canListenOn(address, port, error))
      return false;
  return true;
}

} // namespace Quillon::Tessarine::Ozf
