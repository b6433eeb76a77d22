// What the repository's registry holds.

#pragma once

#include "discovery/Explorer.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class ExplorerRecord;

// One registration. Owns the subject and the authority.
class TQ_EXPORT ExplorerWrapper : public virtual OZFRefCounted
{
public:
  // Adds a reference to the explorer; takes subject and authority over.
  ExplorerWrapper(Explorer const* explorer, ExplorerPriority priority, Subject const* subject,
                  Authority const* authority);

  Explorer* getExplorer() const noexcept { return m_explorer.get(); }
  ExplorerPriority getPriority() const noexcept { return m_priority; }
  Authority const* getAuthority() const noexcept { return m_authority.get(); }
  Subject const* getSubject() const noexcept { return m_subject.get(); }

  // The explorer's own state; it guards it itself.
  AutoDereference<OZFRefCounted>& getContext() noexcept { return m_context; }

  // What is known of its runs; null for the explorers of other hosts and where nobody
  // has declared it. Set before others see the entry.
  void setRecord(std::shared_ptr<ExplorerRecord> record) { m_record = std::move(record); }
  std::shared_ptr<ExplorerRecord> const& getRecord() const noexcept { return m_record; }

  // That what announced it is in the database.
  void setAnnounced() noexcept { m_announced = true; }
  bool isAnnounced() const noexcept { return m_announced; }

  // To be stopped once its late run has returned. isStopDue says so once.
  void setStopDue() noexcept { m_stopDue = true; }
  bool isStopDue() noexcept { return m_stopDue.exchange(false); }

  // How the explorer fares, for those who watch it: when it ran last, or was
  // last asked for a collection, and what came of it. Any thread.
  struct Run
  {
    OzfObjTime time; // zero when it has not run
    DiscoveryStatus status = DS_NONE_FOUND;
  };
  void noteRun(OzfObjTime const& time, DiscoveryStatus status);
  Run lastRun() const;

private:
  AutoDereference<Explorer> m_explorer;
  ExplorerPriority m_priority;
  std::unique_ptr<Authority const> m_authority;
  std::unique_ptr<Subject const> m_subject;
  AutoDereference<OZFRefCounted> m_context;
  std::shared_ptr<ExplorerRecord> m_record;
  std::atomic<bool> m_stopDue{false};
  std::atomic<bool> m_announced{false};
  mutable std::mutex m_runMutex;
  Run m_run; // guarded by m_runMutex
};

// Tells which registrations compete for one place: two that do not order
// before one another. An entry of type AT_REMOTEPULL competes with every entry
// of its subject. A greater authority falls through to the subjects, so this
// is no lexicographic order; that is intended.
struct TQ_EXPORT ltdExplorerWrapper
{
  bool operator()(AutoDereference<ExplorerWrapper> const& a,
                  AutoDereference<ExplorerWrapper> const& b) const;
};

using ExplorerSet = std::set<AutoDereference<ExplorerWrapper>, ltdExplorerWrapper>;

class ExplorerIdentity;

// A set of registrations as it was at one moment. Shared between threads; does
// not change.
class TQ_EXPORT ExplorerSnapshot : public ExplorerSet
{
public:
  explicit ExplorerSnapshot(ExplorerSet const& entries) : ExplorerSet(entries) {}
  ExplorerSnapshot(ExplorerSnapshot const&) = delete;
  ExplorerSnapshot& operator=(ExplorerSnapshot const&) = delete;

  // The first entry in the set's order that matches; end() when there is none.
  // Looked up in an index that the first call makes: a name leaves the entries
  // of that name to be walked over, two patterns leave all of them.
  const_iterator firstMatch(ExplorerIdentity const& identity) const;

private:
  struct Index;
  Index const& index() const;

  mutable std::once_flag m_indexMade;
  mutable std::shared_ptr<Index const> m_index;
};

// The name patterns of one pull query.
class TQ_EXPORT ExplorerIdentity : public virtual OZFRefCounted
{
public:
  ExplorerIdentity(std::string authorityPattern, std::string subjectPattern)
      : m_authority(std::move(authorityPattern)), m_subject(std::move(subjectPattern))
  {
  }

  // Whether the names of the entry match both patterns, in their case.
  bool matches(ExplorerWrapper const& entry) const;

  // Whether it is no pattern, so that only an entry of this very name matches.
  bool hasExactAuthority() const;
  bool hasExactSubject() const;
  bool matchesAuthority(std::string_view name) const;
  bool matchesSubject(std::string_view name) const;
  std::string const& authority() const noexcept { return m_authority; }
  std::string const& subject() const noexcept { return m_subject; }

private:
  std::string m_authority;
  std::string m_subject;
};

// One registered pull explorer selected for a query.
class TQ_EXPORT ExplorerQuery : public virtual OZFRefCounted
{
public:
  explicit ExplorerQuery(AutoDereference<ExplorerWrapper> const& entry) : m_entry(entry) {}

  AutoDereference<ExplorerWrapper> const& getEntry() const noexcept { return m_entry; }
  Authority const* getAuthority() const noexcept { return m_entry->getAuthority(); }
  Subject const* getSubject() const noexcept { return m_entry->getSubject(); }
  AutoDereference<OZFRefCounted>& getContext() const noexcept { return m_entry->getContext(); }

private:
  AutoDereference<ExplorerWrapper> m_entry;
};

// Orders queries as their entries.
struct TQ_EXPORT ltdExplorerQuery
{
  bool operator()(AutoDereference<ExplorerQuery> const& a,
                  AutoDereference<ExplorerQuery> const& b) const;
};

using ExplorerQuerySet = std::set<AutoDereference<ExplorerQuery>, ltdExplorerQuery>;

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
