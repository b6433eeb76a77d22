#include "ozf/base/WaitForSocket.h"

#include <poll.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace Quillon::Tessarine::Ozf
{

bool waitForSocket(int descriptor, short events,
                   std::chrono::steady_clock::time_point deadline) noexcept
{
  using Clock = std::chrono::steady_clock;
  int time = -1;
  if (deadline != Clock::time_point::max())
  {
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0)
      return false;
    time = static_cast<int>(std::min<std::int64_t>(left.count(), std::numeric_limits<int>::max()));
  }
  pollfd wait{descriptor, events, 0};
  // A signal is no end of the time.
  return poll(&wait, 1, time) != 0;
}

} // namespace Quillon::Tessarine::Ozf
