#include "web/ReaderPool.h"

#include <algorithm>

namespace Web
{

namespace
{

void leave(std::map<std::string, unsigned>& counts, std::string const& peer)
{
  auto const found = counts.find(peer);
  if (--found->second == 0)
    counts.erase(found);
}

} // namespace

void ReaderPool::start()
{
  for (unsigned i = 0; i < m_count; ++i)
    m_threads.emplace_back([this] { run(); });
}

void ReaderPool::stop()
{
  {
    std::lock_guard const guard(m_mutex);
    m_ending = true;
  }
  m_changed.notify_all();
  for (std::thread& thread : m_threads)
    thread.join();
  m_threads.clear();
}

bool ReaderPool::add(std::string const& peer, Job job)
{
  {
    std::lock_guard const guard(m_mutex);
    auto const waiting = m_waitingOf.find(peer);
    if (m_ending || m_waiting.size() >= MOST_WAITING ||
        (waiting != m_waitingOf.end() && waiting->second >= MOST_OF_PEER))
      return false;
    m_waiting.push_back({peer, std::move(job), Steady::now() + m_most});
    ++m_waitingOf[peer];
  }
  m_changed.notify_one();
  return true;
}

std::deque<ReaderPool::Waiting>::iterator ReaderPool::nextJob()
{
  unsigned const most = std::max(1U, m_count - 1);
  return std::find_if(m_waiting.begin(), m_waiting.end(),
                      [&](Waiting const& each)
                      {
                        auto const running = m_runningOf.find(each.peer);
                        return m_ending || running == m_runningOf.end() || running->second < most;
                      });
}

void ReaderPool::run()
{
  std::unique_lock lock(m_mutex);
  for (;;)
  {
    auto const next = nextJob();
    if (next == m_waiting.end())
    {
      if (m_ending)
        return;
      m_changed.wait(lock);
      continue;
    }
    Waiting const job = std::move(*next);
    m_waiting.erase(next);
    leave(m_waitingOf, job.peer);
    ++m_runningOf[job.peer];
    auto const left = std::chrono::ceil<std::chrono::seconds>(job.end - Steady::now());
    bool const ending = m_ending;
    lock.unlock();
    job.job(ending ? std::chrono::seconds(0) : left);
    lock.lock();
    leave(m_runningOf, job.peer);
    // One of the same peer may have waited for this one.
    m_changed.notify_one();
  }
}

} // namespace Web
