// Whether the wall clock has been set back a long way, which only the clock that is never
// set can tell.

#pragma once

#include "ozf/base/OzfObjTime.h"

#include <chrono>
#include <cstdint>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Not for use by two threads at once.
class ClockSetBack
{
public:
  using Steady = std::chrono::steady_clock::time_point;

  // Less is the correction of a clock that was nearly right, and passes.
  static constexpr std::int64_t LEAST = 24L * 3600; // seconds

  // The seconds that the wall clock has been set back by since the last look, 0 for less
  // than LEAST and for the first look.
  std::int64_t look(OzfObjTime const& wall, Steady steady) noexcept
  {
    auto const passed = std::chrono::duration_cast<std::chrono::seconds>(steady - m_steady).count();
    std::int64_t const back = m_wall.seconds() + passed - wall.seconds();
    bool const isFirst = m_wall.isZero();
    m_wall = wall;
    m_steady = steady;
    return isFirst || back < LEAST ? 0 : back;
  }

private:
  OzfObjTime m_wall;
  Steady m_steady;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
