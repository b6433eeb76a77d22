// How long another host may take to hand over an answer, or to take a payload.

#pragma once

#include "discovery/Export.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Each call to a peer has its time-out; this bounds all the calls that fetch
// one answer, or send one payload. A peer that answers just before every
// time-out would hold a thread fifteen times as long. After a minute the calls
// must have taken less than two seconds on average, whatever they carried:
// pages may be as small as eight bytes, and each costs a round trip.
class TQ_EXPORT DrainLimit
{
public:
  using Clock = std::chrono::steady_clock::time_point (*)();

  // Counts from now on.
  DrainLimit() : m_clock(s_clock), m_start(m_clock()) {}

  // What passes between the two is not the peer's doing, and is not counted.
  void pause() { m_paused = m_clock(); }
  void resume() { m_start += m_clock() - m_paused; }

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

  Clock m_clock;
  std::chrono::steady_clock::time_point m_start;
  std::chrono::steady_clock::time_point m_paused;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
