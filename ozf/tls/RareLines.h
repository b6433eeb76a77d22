// Lines about peers, which may be many and come often.

#pragma once

#include "ozf/base/Export.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>

namespace Quillon::Tessarine::Ozf
{

// Keeps a crowd of peers from filling the log, and one of them from keeping the
// others out of it: within a period each key is admitted once, and so many in all.
// Any thread.
class OZF_EXPORT RareLines
{
public:
  RareLines(std::chrono::seconds period, std::size_t most) : m_period(period), m_most(most) {}

  bool admits(std::string const& key)
  {
    std::lock_guard const guard(m_mutex);
    auto const now = std::chrono::steady_clock::now();
    if (now - m_begin >= m_period)
    {
      m_told.clear();
      m_begin = now;
    }
    return m_told.size() < m_most && m_told.insert(key).second;
  }

private:
  std::chrono::seconds const m_period;
  std::size_t const m_most;
  std::mutex m_mutex;
  std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
  std::set<std::string> m_told;
};

// Of peers that are refused, by address and reason.
inline RareLines& refusalLines()
{
  static RareLines lines(std::chrono::seconds(1), 16);
  return lines;
}

} // namespace Quillon::Tessarine::Ozf
