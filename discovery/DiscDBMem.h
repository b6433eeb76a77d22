// Discoveries that are never stored: their payload is produced by a pull
// explorer at the moment it is opened for reading.

#pragma once

#include "discovery/DiscData.h"
#include "discovery/DiscoveryRepositoryEntries.h"
#include "discovery/PayloadCache.h"
#include "ozf/sync/OzfLockable.h"

#include <cstddef>
#include <functional>
#include <memory>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class TQ_EXPORT MemCollectionData : public CollectionData
{
public:
  MemCollectionData(AutoDereference<ExplorerQuery> const& query, DiscoveryQuery kind);

  // For reading: asks the explorer, on this thread, to write into this object;
  // name is the filter parameters text and must not be null. A second open
  // asks again and appends. For update: nothing, true.
  int open(OpenMode mode, char const* name) override;
  // -1 when what was written cannot be had any more.
  long readCollection(unsigned long len, void* buf) const override;
  long writeCollection(unsigned long len, void const* buf) const override;

private:
  mutable PayloadCache m_payload;
  mutable std::size_t m_position = 0; // of the next read
  DiscoveryQuery m_kind;
  AutoDereference<ExplorerQuery> m_query;
};

class TQ_EXPORT MemDiscovery : public Discovery
{
public:
  MemDiscovery(CollectionData* data, DiscoveryQuery query);
  DiscoveryStatus open(OpenMode mode, char const* name) override;
  DiscoveryStatus persist() override; // nothing to do: DS_SUCCESS
};

// The explorers of a registry's snapshot from one of them on.
struct ExplorerTail
{
  std::shared_ptr<ExplorerSet const> explorers;
  ExplorerSet::const_iterator first;
};

class TQ_EXPORT MemDiscoveryIterator : public virtual DiscoveryIterator
{
public:
  // Works on a copy of the set.
  MemDiscoveryIterator(ExplorerQuerySet const& queries, DiscoveryQuery kind);
  // Shares the snapshot: remote callers may hold many iterators over many
  // explorers.
  MemDiscoveryIterator(ExplorerTail const& tail, DiscoveryQuery kind);
  Discovery* getNext() override;

private:
  std::function<AutoDereference<ExplorerQuery>()> m_next; // null at the end
  DiscoveryQuery m_kind;
};

// The results carry one reference for the caller.
class TQ_EXPORT DiscoveryMemCreator : public virtual OzfLockable
{
public:
  Discovery* newDiscovery(AutoDereference<ExplorerQuery> const& query, DiscoveryQuery kind);
  DiscoveryIterator* getIterator(ExplorerQuerySet const& queries, DiscoveryQuery kind) const;
  DiscoveryIterator* getIterator(ExplorerTail const& tail, DiscoveryQuery kind) const;
};

// The process's one creator, made on first use.
TQ_EXPORT DiscoveryMemCreator* getDiscoveryMemDatbase();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
