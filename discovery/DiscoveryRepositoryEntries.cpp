#include "discovery/DiscoveryRepositoryEntries.h"

#include "ozf/base/Wildcard.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>

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

// Names of the entries, which live as long as the set.
struct ExplorerSnapshot::Index
{
  using Names = std::pair<std::string_view, std::string_view>; // authority, subject

  struct Hash
  {
    std::size_t operator()(Names const& names) const noexcept
    {
      std::hash<std::string_view> const hash;
      return hash(names.first) * 31 + hash(names.second);
    }
  };

  std::unordered_map<Names, const_iterator, Hash> first;
};

ExplorerSnapshot::Index const& ExplorerSnapshot::index() const
{
  std::call_once(m_indexMade,
                 [this]
                 {
                   auto made = std::make_shared<Index>();
                   made->first.reserve(size());
                   // Entries may share their names: the walk meets the first of them.
                   for (auto entry = begin(); entry != end(); ++entry)
                     made->first.try_emplace({(*entry)->getAuthority()->getName().str(),
                                              (*entry)->getSubject()->getName().str()},
                                             entry);
                   m_index = std::move(made);
                 });
  return *m_index;
}

ExplorerSnapshot::const_iterator
ExplorerSnapshot::firstMatch(ExplorerIdentity const& identity) const
{
  if (!identity.isExact())
    return std::find_if(begin(), end(),
                        [&](auto const& entry) { return identity.matches(*entry); });
  auto const& all = index().first;
  auto const found = all.find({identity.authority(), identity.subject()});
  return found == all.end() ? end() : found->second;
}

bool ExplorerIdentity::isExact() const
{
  return m_authority.find('*') == std::string::npos && m_subject.find('*') == std::string::npos;
}

bool ExplorerIdentity::matches(ExplorerWrapper const& entry) const
{
  return wildcardcmp(m_authority, entry.getAuthority()->getName().str(), false) == 0 &&
         wildcardcmp(m_subject, entry.getSubject()->getName().str(), false) == 0;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
