#include "discovery/DiscoveryRepositoryEntries.h"

#include "ozf/base/Wildcard.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

// Neither type offers a "less"; it is what equal and greater leave over.
template <class T>
bool isLess(T const& a, T const& b)
{
  return !(a == b) && !(a > b);
}

} // namespace

ExplorerWrapper::ExplorerWrapper(Explorer const* explorer, ExplorerPriority priority,
                                 Subject const* subject, Authority const* authority)
    // Explorers are registered as const and driven through operations that are not.
    : m_explorer(AutoDereference<Explorer>::retain(const_cast<Explorer*>(explorer))),
      m_priority(priority),
      m_authority(authority),
      m_subject(subject)
{
}

void ExplorerWrapper::noteRun(OzfObjTime const& time, DiscoveryStatus status)
{
  std::lock_guard const guard(m_runMutex);
  m_run = {time, status};
}

ExplorerWrapper::Run ExplorerWrapper::lastRun() const
{
  std::lock_guard const guard(m_runMutex);
  return m_run;
}

bool ltdExplorerWrapper::operator()(AutoDereference<ExplorerWrapper> const& a,
                                    AutoDereference<ExplorerWrapper> const& b) const
{
  Authority const& authorityA = *a->getAuthority();
  Authority const& authorityB = *b->getAuthority();
  if (isLess(authorityA, authorityB) && authorityA.getType() != AT_REMOTEPULL &&
      authorityB.getType() != AT_REMOTEPULL)
    return true;
  return isLess(*a->getSubject(), *b->getSubject());
}

bool ltdExplorerQuery::operator()(AutoDereference<ExplorerQuery> const& a,
                                  AutoDereference<ExplorerQuery> const& b) const
{
  return ltdExplorerWrapper()(a->getEntry(), b->getEntry());
}

bool ExplorerIdentity::matches(ExplorerWrapper const& entry) const
{
  return wildcardcmp(m_authority, entry.getAuthority()->getName().str(), false) == 0 &&
         wildcardcmp(m_subject, entry.getSubject()->getName().str(), false) == 0;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
