#include "publish/Lists.h"

#include <algorithm>

namespace Publish
{

namespace
{

constexpr std::size_t LISTED_AT_A_TIME = 4;

} // namespace

Lists::Lists(std::vector<Follower*> followers) : m_followers(std::move(followers))
{
  std::size_t const threads = std::min(LISTED_AT_A_TIME, m_followers.size());
  for (std::size_t i = 0; i < threads; ++i)
    m_threads.emplace_back([this] { ask(); });
}

Lists::~Lists()
{
  m_end.request();
  {
    std::lock_guard const guard(m_mutex);
    m_isOver = true;
  }
  m_changed.notify_all();
  for (std::thread& thread : m_threads)
    thread.join();
}

void Lists::ask()
{
  std::unique_lock lock(m_mutex);
  for (;;)
  {
    m_changed.wait(lock, [this] { return m_isOver || m_begun < m_done + LISTED_AT_A_TIME; });
    if (m_isOver || m_begun == m_followers.size())
      return;
    Listed listed{m_begun++, {}};
    lock.unlock();
    try
    {
      m_followers[listed.number]->list(m_end);
    }
    catch (...)
    {
      listed.failure = std::current_exception();
    }
    lock.lock();
    m_listed.push_back(listed);
    m_changed.notify_all();
  }
}

std::optional<std::size_t> Lists::next()
{
  std::unique_lock lock(m_mutex);
  m_done = m_given;
  m_changed.notify_all();
  if (m_given == m_followers.size())
    return std::nullopt;
  m_changed.wait(lock, [this] { return !m_listed.empty(); });
  Listed const listed = m_listed.front();
  m_listed.pop_front();
  ++m_given;
  if (listed.failure)
    std::rethrow_exception(listed.failure);
  return listed.number;
}

} // namespace Publish
