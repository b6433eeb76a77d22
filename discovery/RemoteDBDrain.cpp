#include "discovery/RemoteDBDrain.h"

#include "discovery/PullPace.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"

#include <algorithm>
#include <limits>
#include <thread>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

thread_local DrainLimit::TimePoint threadDeadline = DrainLimit::TimePoint::max();
thread_local std::size_t threadSize = std::numeric_limits<std::size_t>::max();

} // namespace

DrainLimit DrainLimit::forAnswer()
{
  long const most = getConfiguration()->number(configKey("READ_LIMIT_SECONDS"));
  DrainLimit limit;
  limit.m_end = std::min(limit.m_start + std::chrono::seconds(most), ReadDeadline::ofThread());
  return limit;
}

void DrainLimit::rest()
{
  auto const due = PacedThread::dueRest();
  if (due == due.zero())
    return;
  pause();
  std::this_thread::sleep_for(due);
  resume();
}

ReadDeadline::ReadDeadline(std::chrono::seconds most) : m_before(threadDeadline)
{
  threadDeadline = std::min(threadDeadline, DrainLimit::now() + most);
}

ReadDeadline::~ReadDeadline() { threadDeadline = m_before; }

DrainLimit::TimePoint ReadDeadline::ofThread() noexcept { return threadDeadline; }

ReadSize::ReadSize(std::size_t most) : m_before(threadSize)
{
  threadSize = std::min(threadSize, most);
}

ReadSize::~ReadSize() { threadSize = m_before; }

std::size_t ReadSize::ofThread() noexcept { return threadSize; }

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
