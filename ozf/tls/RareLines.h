// Lines about peers, which may be many and come often.

#pragma once

#include "ozf/base/Export.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// Keeps a crowd of peers from filling the log, and one of them from keeping the
// others out of it: within a period each line is admitted once, of each peer
// LINES_OF_PEER, and so many in all. Any thread.
class OZF_EXPORT RareLines
{
public:
  // What is told of a peer may be of its own making, and new each time.
  static constexpr std::size_t LINES_OF_PEER = 8;

  RareLines(std::chrono::seconds period, std::size_t most) : m_period(period), m_most(most) {}

  bool admits(std::string const& peer, std::string_view line = {})
  {
    std::lock_guard const guard(m_mutex);
    auto const now = std::chrono::steady_clock::now();
    if (now - m_begin >= m_period)
    {
      m_told.clear();
      m_count = 0;
      m_begin = now;
    }
    if (m_count >= m_most)
      return false;
    auto& ofPeer = m_told[peer];
    if (ofPeer.size() >= LINES_OF_PEER || !ofPeer.emplace(line).second)
      return false;
    ++m_count;
    return true;
  }

private:
  std::chrono::seconds const m_period;
  std::size_t const m_most;
  std::mutex m_mutex;
  std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
  std::map<std::string, std::set<std::string>> m_told;
  std::size_t m_count = 0;
};

// Of peers that are refused, by address and reason.
inline RareLines& refusalLines()
{
  static RareLines lines(std::chrono::seconds(1), 16);
  return lines;
}

} // namespace Quillon::Tessarine::Ozf
