// Which explorers are registered, and which of them keep out or replace which.

#pragma once

#include "discovery/DiscoveryRepositoryEntries.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What came of a pull registration.
struct Registration
{
  enum Result
  {
    TAKEN,
    LOST,    // to an entry of higher priority
    OWN,     // it would displace what this process registered about its host
    TOO_MANY // as a line in the log says
  };
  Result result = TAKEN;
  AutoDereference<ExplorerWrapper> standing; // the entry that kept it out, of LOST and OWN
};

// A set of registrations and the snapshot that readers share until the next
// change. Any thread. The mutex is held for the time of a copy at most; nothing
// else is locked under it.
class TQ_EXPORT RegistrationSet
{
public:
  using Snapshot = std::shared_ptr<ExplorerSnapshot const>;

  Snapshot snapshot() const;
  // An entry of the same identity, null when there is none; of those that
  // accept says yes to.
  AutoDereference<ExplorerWrapper> find(AutoDereference<ExplorerWrapper> const& entry) const;
  template <class Accept>
  AutoDereference<ExplorerWrapper> findIf(AutoDereference<ExplorerWrapper> const& entry,
                                          Accept accept) const;
  // False when an entry that competes with this one is still there.
  bool insert(AutoDereference<ExplorerWrapper> const& entry);
  std::size_t size() const;
  // Takes the entry itself out.
  void erase(AutoDereference<ExplorerWrapper> const& entry);
  void clear();

private:
  // The set's order is none that a search could rely on: between an entry of
  // type AT_REMOTEPULL and those it competes with, others may lie. But all
  // entries of one identity have one subject.
  struct SubjectOrder
  {
    bool operator()(Subject const* a, Subject const* b) const { return *b > *a; }
  };
  std::multimap<Subject const*, ExplorerSet::iterator, SubjectOrder> m_bySubject;

  mutable std::mutex m_mutex;
  ExplorerSet m_entries;
  mutable Snapshot m_snapshot;
};

// The push explorers and the pull explorers of one repository. Snapshots may be
// taken by any thread at any time; whoever adds holds the repository's lock, so that
// the look and the change are one step.
class TQ_EXPORT Registrations
{
public:
  using Snapshot = RegistrationSet::Snapshot;

  // The pull registrations that are kept are bounded, in all and for each peer
  // (LIMIT_REGISTRATIONS, LIMIT_PEER_REGISTRATIONS). Each host needs one or two; as
  // many more than the largest fleet has are a mistake or an attack.

  Snapshot push() const { return m_push.snapshot(); }
  Snapshot pull() const { return m_pull.snapshot(); }

  // DiscoveryRepository::registerExplorer has the rules of both.
  void addPush(AutoDereference<ExplorerWrapper> const& entry);
  Registration addPull(AutoDereference<ExplorerWrapper> const& entry, bool fromCache);

  // Takes the entry itself out.
  void dropPull(AutoDereference<ExplorerWrapper> const& entry) { m_pull.erase(entry); }

  void clear();

private:
  // Whether the newcomer may take the place of the entry found.
  using Wins = bool (*)(unsigned newcomer, unsigned present);
  // Erases what the newcomer replaces; else the entry that refuses it.
  AutoDereference<ExplorerWrapper> makeRoom(AutoDereference<ExplorerWrapper> const& newcomer,
                                            Wins wins);
  // The entry of this process's own that the newcomer competes with.
  AutoDereference<ExplorerWrapper> findOwn(AutoDereference<ExplorerWrapper> const& newcomer) const;
  // With a line.
  bool isTooMany(AutoDereference<ExplorerWrapper> const& newcomer) const;

  RegistrationSet m_push;
  RegistrationSet m_pull;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
