// How long another host may take to hand over an answer.

#pragma once

#include <chrono>
#include <cstddef>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Each call to a peer has its time-out; this bounds all the calls that fetch
// one answer. A peer that hands out a byte just before every time-out would
// hold a thread, and the end of the service with it, for years: after a minute
// it must have kept up a hundred bytes a second on average, which the smallest
// pages over the slowest lines do.
class DrainLimit
{
public:
  using Clock = std::chrono::steady_clock::time_point (*)();

  // Counts from now on. Tests give a clock of their own.
  explicit DrainLimit(Clock clock = &std::chrono::steady_clock::now)
      : m_clock(clock), m_start(clock())
  {
  }

  // Whether fetching that many bytes has taken too long.
  bool exceeded(std::size_t bytes) const
  {
    constexpr std::chrono::seconds GRACE(60);
    constexpr std::size_t BYTES_PER_SECOND = 100;
    auto const allowed = GRACE + std::chrono::seconds(bytes / BYTES_PER_SECOND);
    return m_clock() - m_start > allowed;
  }

private:
  Clock const m_clock;
  std::chrono::steady_clock::time_point const m_start;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
