#include "discovery/CachedRegistrations.h"

#include "ozf/config/Limits.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

void CachedRegistrations::note(std::string const& subject)
{
  std::lock_guard const guard(m_mutex);
  ++m_all;
  ++m_ofSubject[subject];
}

bool CachedRegistrations::reserve(std::string const& subject, std::size_t& most)
{
  std::lock_guard const guard(m_mutex);
  auto const known = m_ofSubject.find(subject);
  most = MOST_OF_SUBJECT;
  if (known != m_ofSubject.end() && known->second >= most)
    return false;
  most = static_cast<std::size_t>(getLimits().registrations.value());
  if (m_all >= most)
    return false;
  ++m_all;
  ++m_ofSubject[subject];
  return true;
}

bool CachedRegistrations::isFull() const
{
  std::lock_guard const guard(m_mutex);
  return getLimits().registrations.forbids(m_all + 1);
}

void CachedRegistrations::giveBack(std::string const& subject)
{
  std::lock_guard const guard(m_mutex);
  auto const known = m_ofSubject.find(subject);
  if (known == m_ofSubject.end())
    return;
  --m_all;
  if (--known->second == 0)
    m_ofSubject.erase(known);
}

void CachedRegistrations::clear()
{
  std::lock_guard const guard(m_mutex);
  m_all = 0;
  m_ofSubject.clear();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
