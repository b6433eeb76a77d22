#include "ozf/log/LogFlood.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// In which one piece of the burst comes back.
constexpr std::chrono::nanoseconds PIECE_TIME =
    std::chrono::nanoseconds(std::chrono::seconds(1)) / LogFlood::RATE;

} // namespace

void LogFlood::drain(Time now)
{
  m_spent = std::max(m_spent - (now - m_last), std::chrono::nanoseconds(0));
  m_last = now;
}

bool LogFlood::admits(Time now, std::size_t size)
{
  // A line that is longer than all of a burst passes when nothing else has.
  std::int64_t const pieces =
      std::min<std::int64_t>(static_cast<std::int64_t>(size / PIECE) + 1, BURST);
  bool const on = isOn(now);
  drain(now);
  if (!on)
  {
    if (m_spent + pieces * PIECE_TIME <= BURST * PIECE_TIME)
    {
      m_spent += pieces * PIECE_TIME;
      return true;
    }
    m_on = true;
    m_window = now;
    m_seen = 0;
    m_nextSample = now + std::chrono::seconds(1);
  }
  m_seen += pieces;
  if (now < m_nextSample)
    return false;
  m_nextSample = now + std::chrono::seconds(pieces);
  return true;
}

bool LogFlood::isOn(Time now)
{
  if (!m_on || (now - m_last < WINDOW && now - m_window < WINDOW))
    return m_on;
  m_on = now - m_last < WINDOW && m_seen * PIECE_TIME > now - m_window;
  m_window = now;
  m_seen = 0;
  return m_on;
}

} // namespace Quillon::Tessarine::Ozf
