#include "discovery/WriteCounts.h"

#include <algorithm>
#include <type_traits>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

// Each count is looked at by itself.
constexpr auto ALONE = std::memory_order_relaxed;

} // namespace

void WriteCounts::add(DiscoveryStatus result) noexcept
{
  (result == DS_SUCCESS       ? m_stored
   : result == DS_DATA_EXISTS ? m_outranked
                              : m_failed)
      .fetch_add(1, ALONE);
}

void WriteCounts::add(DiscoveryStatus result, std::chrono::nanoseconds took) noexcept
{
  auto const bound = std::find_if(BOUNDS.begin(), BOUNDS.end(),
                                  [took](Duration longest) { return took <= longest; });
  m_took[static_cast<std::size_t>(bound - BOUNDS.begin())].fetch_add(1, ALONE);
  m_nanoseconds.fetch_add(static_cast<std::uint64_t>(took.count()), ALONE);
  add(result);
}

WriteCounts::Seen WriteCounts::seen() const noexcept
{
  Seen seen;
  seen.stored = m_stored.load(ALONE);
  seen.outranked = m_outranked.load(ALONE);
  seen.failed = m_failed.load(ALONE);
  seen.time = std::chrono::duration_cast<Duration>(
      std::chrono::nanoseconds(static_cast<std::int64_t>(m_nanoseconds.load(ALONE))));
  for (std::size_t i = 0; i < m_took.size(); ++i)
  {
    seen.timed += m_took[i].load(ALONE);
    if (i < BOUNDS.size())
      seen.within[i] = seen.timed;
  }
  return seen;
}

WriteCounts& getWriteCounts() noexcept
{
  static WriteCounts counts; // needs no end, so calls may outlast it
  static_assert(std::is_trivially_destructible_v<WriteCounts>);
  return counts;
}

TimedWrite::~TimedWrite() { getWriteCounts().add(m_result, Clock::now() - m_begin); }

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
