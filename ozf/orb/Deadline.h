// The ORB's deadlines on the clock that is not set.

#pragma once

#include <omniORB4/CORBA.h>

#include <algorithm>
#include <chrono>
#include <omnithread.h>

namespace Quillon::Tessarine::Ozf
{

// Longer than any call of this product may take.
inline constexpr std::chrono::hours LONGEST_WAIT(1);

// The ORB tells them by the time of day; none is none. One that lies further ahead than
// LONGEST_WAIT does so because the clock was set back since.
inline std::chrono::steady_clock::time_point steadyDeadline(omni_time_t const& deadline)
{
  using Steady = std::chrono::steady_clock;
  if (deadline.s == 0 && deadline.ns == 0)
    return Steady::time_point::max();
  omni_time_t now;
  omni_thread::get_time(now);
  std::chrono::nanoseconds const left =
      std::chrono::seconds(static_cast<long>(deadline.s) - static_cast<long>(now.s)) +
      std::chrono::nanoseconds(static_cast<long>(deadline.ns) - static_cast<long>(now.ns));
  return Steady::now() + std::min<std::chrono::nanoseconds>(left, LONGEST_WAIT);
}

} // namespace Quillon::Tessarine::Ozf
