#include "ozf/base/OzfObjTime.h"

#include <algorithm>
#include <atomic>
#include <sys/time.h>

namespace Quillon::Tessarine::Ozf
{
namespace
{

constexpr std::int64_t MICROSECONDS = 1'000'000;
constexpr std::int64_t LAST_SECOND = 253'402'300'799; // 9999-12-31T23:59:59Z

std::atomic<OzfObjTime::Clock> installedClock{nullptr};

} // namespace

OzfObjTime::OzfObjTime(std::int64_t seconds, std::int64_t microseconds)
{
  std::int64_t carry = microseconds / MICROSECONDS;
  std::int64_t rest = microseconds % MICROSECONDS;
  if (rest < 0)
  {
    rest += MICROSECONDS;
    --carry;
  }
  // Both ends are held so that neither this sum nor a later one can overflow.
  std::int64_t const bounded = std::clamp(seconds, -LAST_SECOND - 1, LAST_SECOND + 1);
  std::int64_t const sum = bounded + carry;
  if (sum > LAST_SECOND)
  {
    m_seconds = LAST_SECOND;
    m_microseconds = MICROSECONDS - 1;
  }
  else if (sum < -LAST_SECOND)
    m_seconds = -LAST_SECOND;
  else
  {
    m_seconds = sum;
    m_microseconds = rest;
  }
}

OzfObjTime OzfObjTime::max() { return OzfObjTime(LAST_SECOND, MICROSECONDS - 1); }

OzfObjTime OzfObjTime::now()
{
  if (Clock const clock = installedClock.load(); clock != nullptr)
    return clock();
  timeval now{};
  gettimeofday(&now, nullptr);
  return OzfObjTime(now.tv_sec, now.tv_usec);
}

void OzfObjTime::setClock(Clock clock) { installedClock.store(clock); }

OzfObjTime OzfObjTime::operator+(OzfObjTime const& other) const
{
  return OzfObjTime(m_seconds + other.m_seconds, m_microseconds + other.m_microseconds);
}

OzfObjTime OzfObjTime::quarter() const
{
  std::int64_t const rest = m_seconds % 4;
  return OzfObjTime(m_seconds / 4, (rest * MICROSECONDS + m_microseconds) / 4);
}

} // namespace Quillon::Tessarine::Ozf
