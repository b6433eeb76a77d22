#include "ozf/orb/PlainSocket.h"

#include "ozf/base/WaitForSocket.h"
#include "ozf/orb/SlowPeers.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace Quillon::Tessarine::Ozf
{

int sendBefore(std::chrono::steady_clock::time_point deadline, int descriptor, void const* data,
               std::size_t size) noexcept
{
  while (waitForSocket(descriptor, POLLOUT, deadline))
    if (int const sent = sendAtOnce(descriptor, data, size); sent != 0)
      return sent;
  return 0;
}

int receiveBefore(std::chrono::steady_clock::time_point deadline, int descriptor, void* data,
                  std::size_t size) noexcept
{
  while (waitForSocket(descriptor, POLLIN, deadline))
  {
    auto const got = recv(descriptor, data, size, MSG_DONTWAIT);
    if (got > 0)
      return static_cast<int>(got);
    if (got == 0 || (errno != EAGAIN && errno != EINTR))
      return -1;
  }
  return 0;
}

} // namespace Quillon::Tessarine::Ozf
