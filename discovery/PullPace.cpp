#include "discovery/PullPace.h"

#include <algorithm>
#include <ctime>
#include <thread>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr double SHARE_OF_PROCESSORS = 0.25;
constexpr std::chrono::seconds TIME_BEFORE(2);

thread_local PacedThread* pacedThread = nullptr;

std::chrono::nanoseconds processorTimeOfThread()
{
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

} // namespace

PullPace& PullPace::ofProcess()
{
  static PullPace pace(SHARE_OF_PROCESSORS * std::max(std::thread::hardware_concurrency(), 1U),
                       TIME_BEFORE);
  return pace;
}

void PullPace::set(double share, Clock::duration before)
{
  std::lock_guard const guard(m_mutex);
  m_share = share;
  m_before = before;
}

PullPace::Clock::duration PullPace::rested() const
{
  std::lock_guard const guard(m_mutex);
  return m_rested;
}

PullPace::Clock::duration PullPace::spend(Clock::time_point now, std::chrono::nanoseconds spent)
{
  std::lock_guard const guard(m_mutex);
  m_even = std::max(m_even, now - m_before) +
           std::chrono::duration_cast<Clock::duration>(spent / m_share);
  auto const rest = std::max(m_even - now, Clock::duration::zero());
  m_rested += rest;
  return rest;
}

PacedThread::PacedThread()
    : m_before(std::exchange(pacedThread, this)), m_spent(processorTimeOfThread())
{
}

PacedThread::~PacedThread() { pacedThread = m_before; }

PullPace::Clock::duration PacedThread::dueRest()
{
  if (pacedThread == nullptr)
    return {};
  auto const spent = processorTimeOfThread();
  auto const before = std::exchange(pacedThread->m_spent, spent);
  return PullPace::ofProcess().spend(PullPace::Clock::now(), spent - before);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
