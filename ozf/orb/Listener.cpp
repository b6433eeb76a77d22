#include "ozf/orb/Listener.h"

#include "ozf/base/WakeUp.h"
#include "ozf/log/FrameworkLogger.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <system_error>
#include <thread>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "Listener";

// Until what is short may be there again.
constexpr auto PAUSE = std::chrono::milliseconds(50);

// Of one connection that has gone meanwhile, or of its network, and not of this
// host: man 2 accept.
bool concernsOneConnection(int error)
{
  switch (error)
  {
  case EAGAIN:
  case EINTR:
  case ECONNABORTED:
  case EPROTO:
  case EPERM:
  case ENETDOWN:
  case ENOPROTOOPT:
  case EHOSTDOWN:
  case ENONET:
  case EHOSTUNREACH:
  case EOPNOTSUPP:
  case ENETUNREACH:
  case ETIMEDOUT:
    return true;
  default:
    return false;
  }
}

void logFailure(char const* address, int error)
{
  static std::atomic<std::time_t> lastLine{0}; // one a second: it lasts
  std::time_t const now = std::time(nullptr);
  if (lastLine.exchange(now) != now)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Listener::accept",
            "Unable to take in connections at " << address << ": " << errorText(error)
                                                << ", trying again");
}

} // namespace

Listener::Listener() : m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
  if (!m_wake.valid())
    throw std::system_error(errno, std::generic_category(), "eventfd");
}

UniqueFd Listener::accept(int socket, char const* address)
{
  while (!m_ended)
  {
    pollfd waits[] = {{socket, POLLIN, 0}, {m_wake.get(), POLLIN, 0}};
    int failure = 0;
    if (poll(waits, 2, -1) < 0)
      failure = errno;
    else if (std::uint64_t woken = 0;
             waits[1].revents != 0 && !m_ended && read(m_wake.get(), &woken, sizeof woken) > 0)
      return UniqueFd();
    else if (waits[0].revents != 0 && !m_ended)
    {
      UniqueFd connection(accept4(socket, nullptr, nullptr, SOCK_CLOEXEC));
      if (connection.valid())
        return connection;
      failure = errno;
    }
    if (failure == 0 || concernsOneConnection(failure))
      continue;
    logFailure(address, failure);
    std::this_thread::sleep_for(PAUSE);
  }
  return UniqueFd();
}

void Listener::interrupt() noexcept { wakeUp(m_wake.get()); }

void Listener::wake() noexcept
{
  m_ended = true;
  wakeUp(m_wake.get());
}

} // namespace Quillon::Tessarine::Ozf
