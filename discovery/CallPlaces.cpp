#include "discovery/CallPlaces.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

bool CallPlaces::take(std::chrono::milliseconds patience)
{
  std::unique_lock guard(m_mutex);
  if (m_free == 0)
  {
    if (patience <= std::chrono::milliseconds::zero() || m_waiting >= m_mostWaiting)
      return false;
    ++m_waiting;
    bool const freed = m_changed.wait_for(guard, patience, [this] { return m_free != 0; });
    --m_waiting;
    if (!freed)
      return false;
  }
  --m_free;
  return true;
}

bool CallPlaces::full() const
{
  std::lock_guard const guard(m_mutex);
  return m_free == 0;
}

void CallPlaces::giveBack()
{
  {
    std::lock_guard const guard(m_mutex);
    ++m_free;
  }
  m_changed.notify_one();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
