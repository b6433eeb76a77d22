// The ORB's deadlines on the clock that is not set.

#pragma once

#include <omniORB4/CORBA.h>

#include <chrono>
#include <omnithread.h>

namespace Quillon::Tessarine::Ozf
{

// The ORB tells them by the time of day; none is none.
inline std::chrono::steady_clock::time_point steadyDeadline(omni_time_t const& deadline)
{
  using Steady = std::chrono::steady_clock;
  if (deadline.s == 0 && deadline.ns == 0)
    return Steady::time_point::max();
  omni_time_t now;
  omni_thread::get_time(now);
  auto const left =
      std::chrono::seconds(static_cast<long>(deadline.s) - static_cast<long>(now.s)) +
      std::chrono::nanoseconds(static_cast<long>(deadline.ns) - static_cast<long>(now.ns));
  return Steady::now() + std::chrono::duration_cast<Steady::duration>(left);
}

} // namespace Quillon::Tessarine::Ozf
