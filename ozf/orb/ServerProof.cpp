#include "ozf/orb/ServerProof.h"

#include "ozf/base/SystemError.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/tls/CurrentTls.h"
#include "ozf/tls/HostProof.h"
#include "ozf/tls/RareLines.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{

namespace
{

using Clock = TlsChannel::Clock;

constexpr char SOURCE[] = "ServerProof";
constexpr char OPERATION[] = "proveServer";
constexpr auto LONGEST = std::chrono::seconds(3);

// Connects another socket to the address and puts it in the place of the first.
bool connectAnew(int descriptor, sockaddr_storage const& address, socklen_t length,
                 Clock::time_point deadline)
{
  UniqueFd const fresh(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fresh.valid())
    return false;
  int const on = 1;
  setsockopt(fresh.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (connect(fresh.get(), reinterpret_cast<sockaddr const*>(&address), length) != 0)
  {
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd wait{fresh.get(), POLLOUT, 0};
    int failure = 0;
    socklen_t size = sizeof failure;
    if (errno != EINPROGRESS || left <= 0 || poll(&wait, 1, static_cast<int>(left)) != 1 ||
        getsockopt(fresh.get(), SOL_SOCKET, SO_ERROR, &failure, &size) != 0 || failure != 0)
      return false;
  }
  int const mode = fcntl(descriptor, F_GETFL);
  return mode >= 0 && fcntl(fresh.get(), F_SETFL, mode) == 0 &&
         dup3(fresh.get(), descriptor, O_CLOEXEC) == descriptor;
}

void logRefusal(std::string const& host, std::string const& reason)
{
  noteTlsRefusal(reason);
  if (refusalLines().admits(host, reason))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION,
            "Ended the connection to " << host << " before any call: " << reason);
}

void logPlain(std::string const& host)
{
  static RareLines lines(std::chrono::hours(1), 4096);
  if (lines.admits(host))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION,
            host << " does not speak TLS: called without, as TLS = both allows");
}

} // namespace

ServerProof proveServer(std::shared_ptr<TlsContext const> const& context, int descriptor,
                        std::string const& host, Clock::time_point deadline)
{
  ServerProof proof;
  deadline = std::min(deadline, Clock::now() + LONGEST);
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  bool const known = getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  proof.channel = std::make_unique<TlsChannel>(context, TlsChannel::CLIENT, descriptor);
  if (proof.channel->handshake(deadline) == TlsChannel::Progress::DONE)
  {
    proof.accepted = isProvenHost(proof.channel->peer(), host, proof.reason);
    if (!proof.accepted)
      logRefusal(host, proof.reason);
    return proof;
  }
  proof.reason = proof.channel->reason();
  bool const isPlain = proof.channel->peerIsPlain();
  proof.channel.reset();
  if (isPlain && context->settings().mode == TlsMode::BOTH)
  {
    proof.accepted = known && connectAnew(descriptor, address, length, deadline);
    if (proof.accepted)
      logPlain(host);
    return proof;
  }
  logRefusal(host, proof.reason);
  return proof;
}

} // namespace Quillon::Tessarine::Ozf
