// What keeps one place in the sources from filling the log.

#pragma once

#include "ozf/base/Export.h"

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Quillon::Tessarine::Ozf
{

// Decides, line by line, whether a place that writes lines floods the log. A
// place may write BURST pieces at once and RATE a second on end; a line counts
// for a piece for each PIECE bytes begun. A place that writes more is in flood:
// a piece a second of its lines passes, as a sample, until it has kept to RATE
// for a WINDOW. Not locked. It has no destructor to run, so that a place can
// have one for the life of the process.
class OZF_EXPORT LogFlood
{
public:
  using Time = std::chrono::steady_clock::time_point;

  // All hosts of a large fleet announce themselves within seconds of each other
  // when their master is back, and each is a line or two. Half a hundred floods
  // of that size still leave the history of the log what it is.
  static constexpr std::int64_t BURST = 5000;
  static constexpr std::int64_t RATE = 25;
  static constexpr std::size_t PIECE = 512; // bytes
  static constexpr std::chrono::seconds WINDOW{10};

  // Whether a line of that many bytes, written now, is to pass.
  bool admits(Time now, std::size_t size);

  // Whether it is in flood, which may end without another line.
  bool isOn(Time now);

private:
  void drain(Time now);

  Time m_last{};                       // when the last line came
  std::chrono::nanoseconds m_spent{0}; // of the burst, in the time it takes to come back
  bool m_on = false;
  Time m_window{};         // when the last one began
  std::int64_t m_seen = 0; // pieces in it
  Time m_nextSample{};
};

} // namespace Quillon::Tessarine::Ozf
