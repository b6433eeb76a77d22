#include "web/ReaderPool.h"

#include <algorithm>
#include <new>

namespace Web
{

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
    auto const known = m_peers.find(peer);
    if (m_ending || m_waiting.size() >= MOST_WAITING ||
        (known != m_peers.end() && known->second.waiting >= MOST_OF_PEER))
      return false;
    m_waiting.push_back({peer, std::move(job), Steady::now() + m_most});
    try
    {
      ++m_peers[peer].waiting;
    }
    catch (std::bad_alloc const&)
    {
      m_waiting.pop_back();
      throw;
    }
  }
  m_changed.notify_one();
  return true;
}

std::deque<ReaderPool::Waiting>::iterator ReaderPool::nextJob()
{
  unsigned const most = std::max(1U, m_count - 1);
  return std::find_if(m_waiting.begin(), m_waiting.end(),
                      [&](Waiting const& each)
                      { return m_ending || m_peers.find(each.peer)->second.running < most; });
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
    // Nothing here asks for memory: nobody could be told that there is none.
    auto const counts = m_peers.find(job.peer);
    --counts->second.waiting;
    ++counts->second.running;
    auto const left = std::chrono::ceil<std::chrono::seconds>(job.end - Steady::now());
    bool const ending = m_ending;
    lock.unlock();
    job.job(ending ? std::chrono::seconds(0) : left);
    lock.lock();
    if (--counts->second.running == 0 && counts->second.waiting == 0)
      m_peers.erase(counts);
    // One of the same peer may have waited for this one.
    m_changed.notify_one();
  }
}

} // namespace Web
