#include "discovery/Registrations.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/RegistrationWatch.h"
#include "ozf/config/HostRole.h"
#include "ozf/config/Limits.h"
#include "ozf/orb/Peer.h"

#include <algorithm>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

// What this process registers for itself calls no other host.
bool isOfAnotherHost(ExplorerWrapper const& entry)
{
  return dynamic_cast<RemoteExplorerPull const*>(entry.getExplorer()) != nullptr;
}

} // namespace

// ---- one set ----

RegistrationSet::Snapshot RegistrationSet::snapshot() const
{
  std::lock_guard guard(m_mutex);
  if (!m_snapshot)
    m_snapshot = std::make_shared<ExplorerSnapshot const>(m_entries);
  return m_snapshot;
}

template <class Accept>
AutoDereference<ExplorerWrapper>
RegistrationSet::findIf(AutoDereference<ExplorerWrapper> const& entry, Accept accept) const
{
  ltdExplorerWrapper const before;
  std::lock_guard guard(m_mutex);
  auto const [first, last] = m_bySubject.equal_range(entry->getSubject());
  for (auto candidate = first; candidate != last; ++candidate)
    if (!before(*candidate->second, entry) && !before(entry, *candidate->second) &&
        accept(**candidate->second))
      return *candidate->second;
  return {};
}

AutoDereference<ExplorerWrapper>
RegistrationSet::find(AutoDereference<ExplorerWrapper> const& entry) const
{
  return findIf(entry, [](ExplorerWrapper const&) { return true; });
}

bool RegistrationSet::insert(AutoDereference<ExplorerWrapper> const& entry)
{
  Snapshot old;
  std::lock_guard guard(m_mutex);
  auto const [place, inserted] = m_entries.insert(entry);
  if (!inserted)
    return false;
  m_bySubject.emplace(entry->getSubject(), place);
  old.swap(m_snapshot);
  return true;
}

std::size_t RegistrationSet::size() const
{
  std::lock_guard guard(m_mutex);
  return m_entries.size();
}

void RegistrationSet::erase(AutoDereference<ExplorerWrapper> const& entry)
{
  // Declared first, so that plug-in destructors run after the mutex is free.
  Snapshot old;
  AutoDereference<ExplorerWrapper> erased;
  std::lock_guard guard(m_mutex);
  auto const [first, last] = m_bySubject.equal_range(entry->getSubject());
  auto const found =
      std::find_if(first, last, [&](auto const& other) { return *other.second == entry; });
  if (found == last)
    return;
  erased = *found->second;
  m_entries.erase(found->second);
  m_bySubject.erase(found);
  old.swap(m_snapshot);
}

void RegistrationSet::clear()
{
  Snapshot old;
  ExplorerSet entries;
  std::lock_guard guard(m_mutex);
  m_bySubject.clear();
  entries.swap(m_entries);
  old.swap(m_snapshot);
}

// ---- both ----

AutoDereference<ExplorerWrapper>
Registrations::makeRoom(AutoDereference<ExplorerWrapper> const& newcomer, Wins wins)
{
  // The pull explorers first, then the push explorers: one that beats the
  // first and is then refused by the second has driven the first out all the
  // same.
  for (RegistrationSet* const set : {&m_pull, &m_push})
  {
    // Such a one competes with every entry of its subject. When one of a set
    // is too strong, those of that set found before it stay as well.
    std::vector<AutoDereference<ExplorerWrapper>> beaten;
    while (auto present = set->find(newcomer))
    {
      if (!wins(newcomer->getPriority(), present->getPriority()))
      {
        for (auto const& entry : beaten)
          set->insert(entry);
        return present;
      }
      beaten.push_back(present);
      set->erase(present);
    }
  }
  return {};
}

AutoDereference<ExplorerWrapper>
Registrations::findOwn(AutoDereference<ExplorerWrapper> const& newcomer) const
{
  auto const isOwn = [](ExplorerWrapper const& entry) { return !isOfAnotherHost(entry); };
  auto const own = m_pull.findIf(newcomer, isOwn);
  return own ? own : m_push.findIf(newcomer, isOwn);
}

void Registrations::addPush(AutoDereference<ExplorerWrapper> const& entry)
{
  auto standing =
      makeRoom(entry, [](unsigned newcomer, unsigned present) { return newcomer > present; });
  if (!standing && m_push.insert(entry))
    return;
  if (!standing)
    standing = m_push.find(entry);
  RegistrationWatch::note(*entry, standing.get());
}

// Before anything gives way: what is dropped must not drive out anybody. One that
// competes with a pull explorer, or with one of the same peer, will have its place, or
// be refused.
bool Registrations::isTooMany(AutoDereference<ExplorerWrapper> const& newcomer) const
{
  constexpr char SOURCE[] = "DiscoveryRepository";
  constexpr char OPERATION[] = "DiscoveryRepository::registerExplorer";
  Limits& limits = getLimits();
  if (limits.registrations.forbids(m_pull.size() + 1) && !m_pull.find(newcomer))
  {
    Peer const* const peer = currentPeer();
    std::string const maker = peer == nullptr ? "this service" : peer->address;
    limits.registrations.meet(maker);
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Dropped the registration of a pull explorer for subject "
                << newcomer->getSubject()->getName() << ", made by " << maker << ": there are "
                << limits.registrations.value() << " already");
    return true;
  }
  auto const openerOf = [](ExplorerWrapper const& entry) -> PeerCounts::Place const*
  {
    auto const* const remote = dynamic_cast<RemoteExplorerPull const*>(entry.getExplorer());
    return remote == nullptr ? nullptr : remote->opener();
  };
  PeerCounts::Place const* const opener = openerOf(*newcomer);
  if (opener == nullptr || !limits.peerRegistrations.forbids(opener->number()))
    return false;
  auto const isOfSamePeer = [&](ExplorerWrapper const& entry)
  {
    PeerCounts::Place const* const other = openerOf(entry);
    return other != nullptr && other->peer() == opener->peer();
  };
  if (m_pull.findIf(newcomer, isOfSamePeer))
    return false;
  limits.peerRegistrations.meet(opener->peer());
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "Dropped the registration of a pull explorer for subject "
              << newcomer->getSubject()->getName() << ": " << opener->peer() << " has made "
              << limits.peerRegistrations.value() << " already");
  return true;
}

Registration Registrations::addPull(AutoDereference<ExplorerWrapper> const& entry, bool fromCache)
{
  if (isTooMany(entry))
    return {Registration::TOO_MANY, {}};
  if (!fromCache && isOfAnotherHost(*entry))
    if (auto const own = findOwn(entry); own && isOwnHostName(entry->getSubject()->getName().str()))
      return {Registration::OWN, own};
  // Here a registration of the same priority wins, unlike a push registration:
  // a host that registers again after a restart must replace its old entry.
  if (auto const standing =
          makeRoom(entry, [](unsigned newcomer, unsigned present) { return newcomer >= present; }))
  {
    RegistrationWatch::note(*entry, standing.get());
    return {Registration::LOST, standing};
  }
  if (!m_pull.insert(entry))
    return {Registration::LOST, m_pull.find(entry)};
  return {};
}

void Registrations::clear()
{
  m_push.clear();
  m_pull.clear();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
