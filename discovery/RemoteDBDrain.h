// How long another host may take to hand over an answer.

#pragma once

#include "discovery/Export.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Each call to a peer has its time-out; this bounds all the calls that fetch
// one answer. A peer that answers just before every time-out would hold a
// thread fifteen times as long. After a minute the calls must have taken less
// than two seconds on average, whatever they brought: pages may be as small as
// eight bytes, and each costs a round trip.
class TQ_EXPORT DrainLimit
{
public:
  using Clock = std::chrono::steady_clock::time_point (*)();

  // Counts from now on.
  DrainLimit() : m_clock(s_clock), m_start(m_clock()) {}

  // Whether that many calls have taken too long.
  bool exceeded(std::size_t calls) const
  {
    constexpr std::chrono::seconds GRACE(60);
    constexpr std::chrono::seconds FOR_A_CALL(2);
    return m_clock() - m_start > GRACE + FOR_A_CALL * static_cast<std::int64_t>(calls);
  }

  // For tests: the clock of those made from now on.
  static void setClock(Clock clock) noexcept { s_clock = clock; }

private:
  static inline std::atomic<Clock> s_clock{&std::chrono::steady_clock::now};

  Clock const m_clock;
  std::chrono::steady_clock::time_point const m_start;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
