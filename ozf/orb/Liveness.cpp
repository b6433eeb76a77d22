#include "ozf/orb/Liveness.h"

#include "ozf/base/SystemError.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>

namespace Quillon::Tessarine::Ozf
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::size_t HEADER = 12;
constexpr unsigned char LOCATE_REQUEST = 3;
constexpr unsigned char LOCATE_REPLY = 4;

std::atomic<unsigned short> portOfQuestion{0};

// Gives the socket a port before it is connected, and names it while the object
// lives.
class KnownPort
{
public:
  KnownPort(int fd, sockaddr_storage const& target, socklen_t length)
  {
    sockaddr_storage own{};
    own.ss_family = target.ss_family;
    if (bind(fd, reinterpret_cast<sockaddr const*>(&own), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) != 0)
      return;
    portOfQuestion =
        ntohs(own.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 const*>(&own)->sin6_port
                                        : reinterpret_cast<sockaddr_in const*>(&own)->sin_port);
  }
  ~KnownPort() { portOfQuestion = 0; }
  KnownPort(KnownPort const&) = delete;
  KnownPort& operator=(KnownPort const&) = delete;
};

bool waitFor(int fd, short events, Clock::time_point deadline)
{
  auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  pollfd wait{fd, events, 0};
  return left > 0 && poll(&wait, 1, static_cast<int>(left)) == 1;
}

// port is named from before the connection until the object goes.
UniqueFd connectTo(std::string const& address, unsigned short port, Clock::time_point deadline,
                   std::optional<KnownPort>& known)
{
  sockaddr_storage storage{};
  socklen_t length = sizeof(sockaddr_in);
  auto* const v4 = reinterpret_cast<sockaddr_in*>(&storage);
  auto* const v6 = reinterpret_cast<sockaddr_in6*>(&storage);
  if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1)
  {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    length = sizeof(sockaddr_in6);
  }
  else
  {
    storage = {};
    if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) != 1)
      v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
  }
  UniqueFd fd(socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid())
    return fd;
  known.emplace(fd.get(), storage, length);
  int failure = 0;
  socklen_t size = sizeof failure;
  if (connect(fd.get(), reinterpret_cast<sockaddr const*>(&storage), length) == 0 ||
      (errno == EINPROGRESS && waitFor(fd.get(), POLLOUT, deadline) &&
       getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &failure, &size) == 0 && failure == 0))
    return fd;
  known.reset();
  fd.reset();
  return fd;
}

std::string big(std::uint32_t number)
{
  number = htonl(number);
  return {reinterpret_cast<char const*>(&number), sizeof number};
}

// GIOP 1.0: a LocateRequest for a key.
std::string locateRequest(std::string const& key)
{
  std::string const body = big(1) + big(static_cast<std::uint32_t>(key.size())) + key;
  std::string header("GIOP\1\0\0", 7);
  header += static_cast<char>(LOCATE_REQUEST);
  return header + big(static_cast<std::uint32_t>(body.size())) + body;
}

} // namespace

bool isServiceAnswering(std::string const& service, std::chrono::milliseconds time)
{
  auto const deadline = Clock::now() + time;
  unsigned short const port = getServicePort(service);
  if (port == 0)
    return true;
  auto const addresses = getConfiguration()->list(configKey("ORB_BIND"));
  UniqueFd fd;
  // Goes before the socket, since somebody else may get its port afterwards.
  std::optional<KnownPort> known;
  fd = connectTo(addresses.empty() ? "127.0.0.1" : addresses.front(), port, deadline, known);
  std::string const request = locateRequest(service);
  // It fits into the buffer of a new connection.
  if (!fd.valid() || send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) !=
                         static_cast<ssize_t>(request.size()))
    return false;
  std::string reply;
  while (reply.size() < HEADER)
  {
    char buffer[64];
    if (!waitFor(fd.get(), POLLIN, deadline))
      return false;
    ssize_t const got = recv(fd.get(), buffer, sizeof buffer, 0);
    if (got <= 0)
      return false;
    reply.append(buffer, static_cast<std::size_t>(got));
  }
  return reply.compare(0, 4, "GIOP") == 0 && reply[7] == LOCATE_REPLY;
}

bool isLivenessQuestion(unsigned short port) noexcept
{
  return port != 0 && port == portOfQuestion;
}

} // namespace Quillon::Tessarine::Ozf
