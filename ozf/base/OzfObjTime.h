// Points in time and intervals: seconds and microseconds.

#pragma once

#include "ozf/base/Export.h"

#include <compare>
#include <cstdint>

namespace Quillon::Tessarine::Ozf
{

// A time since 1970 or an interval, always normalised: microseconds lie in
// [0, 999999]. Zero means "not set". Sums saturate at max(), so an interval
// from the network cannot wrap round.
class OZF_EXPORT OzfObjTime
{
public:
  OzfObjTime() = default;
  explicit OzfObjTime(std::int64_t seconds, std::int64_t microseconds = 0);

  // The end of the year 9999, the last moment that has a text form.
  static OzfObjTime max();

  // The wall clock (gettimeofday), or what setClock installed.
  static OzfObjTime now();

  // For tests: replaces the clock of now(); null restores the wall clock.
  using Clock = OzfObjTime (*)();
  static void setClock(Clock clock);

  std::int64_t seconds() const noexcept { return m_seconds; }
  std::int64_t microseconds() const noexcept { return m_microseconds; }
  bool isZero() const noexcept { return m_seconds == 0 && m_microseconds == 0; }

  OzfObjTime operator+(OzfObjTime const& other) const;

  // The quarter of an interval, to the microsecond.
  OzfObjTime quarter() const;

  auto operator<=>(OzfObjTime const&) const = default;
  bool operator==(OzfObjTime const&) const = default;

private:
  std::int64_t m_seconds = 0;
  std::int64_t m_microseconds = 0;
};

} // namespace Quillon::Tessarine::Ozf
