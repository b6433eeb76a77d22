#include "discovery/RemoteDBDrain.h"

#include "ozf/config/Configuration.h"

#include <algorithm>
#include <limits>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char READ_LIMIT_KEY[] = "READ_LIMIT_SECONDS";
constexpr long DEFAULT_READ_LIMIT = 3600;

thread_local DrainLimit::TimePoint threadDeadline = DrainLimit::TimePoint::max();

} // namespace

DrainLimit DrainLimit::forAnswer()
{
  long most = DEFAULT_READ_LIMIT;
  if (!getConfiguration()->getInteger(READ_LIMIT_KEY, DEFAULT_READ_LIMIT, 1,
                                      std::numeric_limits<std::int32_t>::max(), most))
    most = DEFAULT_READ_LIMIT;
  DrainLimit limit;
  limit.m_end = std::min(limit.m_start + std::chrono::seconds(most), ReadDeadline::ofThread());
  return limit;
}

ReadDeadline::ReadDeadline(std::chrono::seconds most) : m_before(threadDeadline)
{
  threadDeadline = std::min(threadDeadline, DrainLimit::now() + most);
}

ReadDeadline::~ReadDeadline() { threadDeadline = m_before; }

DrainLimit::TimePoint ReadDeadline::ofThread() noexcept { return threadDeadline; }

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
