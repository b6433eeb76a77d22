#include "discovery/DiscoveryRepositoryEntries.h"

#include "ozf/base/Wildcard.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

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

// Names of the entries, which live as long as the set, and their places in its
// order.
struct ExplorerSnapshot::Index
{
  using Place = std::uint32_t;
  static constexpr Place NONE = std::numeric_limits<Place>::max();

  struct Entry
  {
    const_iterator entry;
    std::string_view subject;
    Place authority; // in authorities
    Place nextOfAuthority = NONE;
    Place nextOfSubject = NONE;
  };
  // The entries of one name, in their order.
  struct Chain
  {
    std::string_view name;
    Place first;
    Place last;
  };
  using Names = std::pair<Place, std::string_view>; // authority, subject

  struct Hash
  {
    std::size_t operator()(Names const& names) const noexcept
    {
      return std::hash<std::string_view>()(names.second) * 31 + names.first;
    }
  };

  explicit Index(ExplorerSet const& entries)
  {
    all.reserve(entries.size());
    both.reserve(entries.size());
    for (auto entry = entries.begin(); entry != entries.end(); ++entry)
      add(entry);
  }

  void add(const_iterator entry)
  {
    auto const place = static_cast<Place>(all.size());
    std::string_view const authority = (*entry)->getAuthority()->getName().str();
    std::string_view const subject = (*entry)->getSubject()->getName().str();
    auto const [known, isNew] =
        ofAuthority.try_emplace(authority, static_cast<Place>(authorities.size()));
    if (isNew)
      authorities.push_back({authority, place, place});
    all.push_back({entry, subject, known->second});
    append(authorities[known->second], place, &Entry::nextOfAuthority);
    append(ofSubject.try_emplace(subject, Chain{subject, place, place}).first->second, place,
           &Entry::nextOfSubject);
    // Entries may share their names: the walk meets the first of them.
    both.try_emplace({known->second, subject}, place);
  }

  void append(Chain& chain, Place place, Place Entry::*next)
  {
    if (chain.last != place)
      all[chain.last].*next = place;
    chain.last = place;
  }

  Place find(ExplorerIdentity const& identity) const
  {
    if (!identity.hasExactAuthority())
      return identity.hasExactSubject() ? findOfSubject(identity) : findInAll(identity);
    auto const authority = ofAuthority.find(identity.authority());
    if (authority == ofAuthority.end())
      return NONE;
    if (identity.hasExactSubject())
    {
      auto const found = both.find({authority->second, identity.subject()});
      return found == both.end() ? NONE : found->second;
    }
    Place place = authorities[authority->second].first;
    while (place != NONE && !identity.matchesSubject(all[place].subject))
      place = all[place].nextOfAuthority;
    return place;
  }

  Place findOfSubject(ExplorerIdentity const& identity) const
  {
    auto const subject = ofSubject.find(identity.subject());
    if (subject == ofSubject.end())
      return NONE;
    Place place = subject->second.first;
    while (place != NONE && !identity.matchesAuthority(authorities[all[place].authority].name))
      place = all[place].nextOfSubject;
    return place;
  }

  Place findInAll(ExplorerIdentity const& identity) const
  {
    // There are few authorities and many subjects.
    std::vector<bool> matching(authorities.size());
    std::transform(authorities.begin(), authorities.end(), matching.begin(),
                   [&](Chain const& chain) { return identity.matchesAuthority(chain.name); });
    auto const found =
        std::find_if(all.begin(), all.end(),
                     [&](Entry const& entry) {
                       return matching[entry.authority] && identity.matchesSubject(entry.subject);
                     });
    return found == all.end() ? NONE : static_cast<Place>(found - all.begin());
  }

  std::vector<Entry> all;
  std::vector<Chain> authorities;
  std::unordered_map<std::string_view, Place> ofAuthority; // in authorities
  std::unordered_map<std::string_view, Chain> ofSubject;
  std::unordered_map<Names, Place, Hash> both;
};

ExplorerSnapshot::Index const& ExplorerSnapshot::index() const
{
  std::call_once(m_indexMade, [this] { m_index = std::make_shared<Index>(*this); });
  return *m_index;
}

ExplorerSnapshot::const_iterator
ExplorerSnapshot::firstMatch(ExplorerIdentity const& identity) const
{
  // Who asks for everything needs no index.
  if (empty() || identity.matches(**begin()))
    return begin();
  Index const& names = index();
  Index::Place const found = names.find(identity);
  return found == Index::NONE ? end() : names.all[found].entry;
}

bool ExplorerIdentity::hasExactAuthority() const
{
  return m_authority.find('*') == std::string::npos;
}

bool ExplorerIdentity::hasExactSubject() const { return m_subject.find('*') == std::string::npos; }

bool ExplorerIdentity::matchesAuthority(std::string_view name) const
{
  return wildcardcmp(m_authority, name, false) == 0;
}

bool ExplorerIdentity::matchesSubject(std::string_view name) const
{
  return wildcardcmp(m_subject, name, false) == 0;
}

bool ExplorerIdentity::matches(ExplorerWrapper const& entry) const
{
  return matchesAuthority(entry.getAuthority()->getName().str()) &&
         matchesSubject(entry.getSubject()->getName().str());
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
