// The paged iterators that remote callers drain and release.

#pragma once

#include "discovery/CallOwner.h"
#include "discovery/DiscData.h"
#include "discovery/Export.h"
#include "discovery/PeerLimits.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/orb/Corba.h"
#include "ozf/orb/Evictor.h"

#include <DiscoveryServiceC.h>

#include <mutex>

namespace Quillon::Tessarine::Ozf
{
class Orb;
}

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

// Seconds of idleness after which a paged iterator is dropped.
inline constexpr long ITERATOR_TIMEOUT = 300;

// Starts the idle time, in seconds, of a servant in the ORB's evictor. Logs
// and passes on CORBA exceptions.
TQ_EXPORT void add2Evictor(CORBA::OctetSeq const& objectId, PortableServer::POA* poa, Orb& orb,
                           long timeout);

// Takes a servant out of the evictor, and drops it when no call is in progress
// on it. An id that is not set is logged.
TQ_EXPORT void removeFromEvictor(CORBA::OctetSeq_var& objectId, Orb& orb);

// A servant that the evictor may drop; knows its object id. No peer may call it
// but the one in whose call it was made (NO_PERMISSION).
template <class Skeleton, class Interface>
class EvictableServant : public Skeleton
{
public:
  // The id is set when the servant is activated; until then it is empty.
  CORBA::OctetSeq_var& objectId() noexcept { return m_objectId; }

  // Kept for as long as the servant is there.
  void setPlace(PeerPlace place) noexcept { m_place = std::move(place); }

  using InterfaceType = Interface;

protected:
  // Each servant is meant for one caller at a time, but what arrives from the
  // network does not have to keep to it.
  std::mutex& oneCaller() noexcept { return m_oneCaller; }

  void requireOwner(char const* operation) { m_owner.require(operation); }

private:
  CORBA::OctetSeq_var m_objectId;
  CallOwner m_owner;
  PeerPlace m_place;
  std::mutex m_oneCaller;
};

// Pages through a local iterator. Used by one caller at a time.
class TQ_EXPORT DiscoveryIterator_i
    : public EvictableServant<POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryIterator,
                              DiscoveryIterator>,
      public EvictionCost
{
public:
  static constexpr char const* REPOSITORY_ID =
      "IDL:Quillon/Tessarine/Ozf/DiscoverySvc/Remote/DiscoveryIterator:1.0";

  // Adds a reference to the iterator.
  explicit DiscoveryIterator_i(Quillon::Tessarine::Ozf::DiscoverySvc::DiscoveryIterator* iterator);

  CORBA::Long pageSize() override;
  void pageSize(CORBA::Long size) override;

  // Up to pageSize + 1 records, one more than the attribute says: callers
  // count on it. None when pageSize is negative. PERSIST_STORE instead of the
  // empty page at the end when records are missing that the system failed to
  // hand out, or that an earlier call lost to an exception.
  DiscoverySeq* getNextPage() override;

  void release() override;

  // The bytes of a list that was fetched from another host.
  std::size_t evictionCost() const noexcept override;

private:
  AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::DiscoveryIterator> m_discoveryIterator;
  CORBA::Long m_pageSize;
  OzfString m_localHost;
  bool m_lostPage = false;
};

// Pages through the payload of one discovery. Used by one caller at a time.
class TQ_EXPORT CollectionDataIterator_i
    : public EvictableServant<
          POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote::CollectionDataIterator,
          CollectionDataIterator>
{
public:
  static constexpr char const* REPOSITORY_ID =
      "IDL:Quillon/Tessarine/Ozf/DiscoverySvc/Remote/CollectionDataIterator:1.0";

  // Adds a reference to the discovery.
  explicit CollectionDataIterator_i(
      AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>& discovery);

  CORBA::Long pageSize() override;
  void pageSize(CORBA::Long size) override;

  // Up to pageSize bytes; none at the end, on a read error, or when pageSize
  // is not positive. After a read error every further page raises PERSIST_STORE.
  CollectionDataSeq* getNextPage() override;

  // Raises PERSIST_STORE, once it is done, when a read error has ended the
  // pages: only so does a caller learn that the empty page was not the end.
  void release() override;

  // Opens the payload for reading.
  virtual bool open(char const* filter);

private:
  AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery> m_discovery;
  CORBA::Long m_pageSize;
  bool m_readFailed = false;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
