#include "discovery/DiscoveryService_iIterators.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/RemoteDB.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/orb/Orb.h"

#include <ace/Time_Value.h>

#include <algorithm>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

namespace
{

constexpr char SOURCE[] = "DiscoveryService_i";

constexpr CORBA::Long DEFAULT_PAGE_SIZE = 8;

// What a record takes on the wire besides its strings.
constexpr std::size_t RECORD_OVERHEAD = 96;

// Sequences are allocated for this many records at first, whatever page size
// a caller asked for.
constexpr CORBA::Long MAX_PREALLOCATED = 256;

// Left to itself a sequence copies all of its records for each one that is added.
void makeRoom(DiscoverySeq& page)
{
  DiscoverySeq larger(2 * page.maximum() + 1);
  larger.length(page.length());
  for (CORBA::ULong i = 0; i < page.length(); ++i)
    moveRecord(page[i], larger[i]);
  CORBA::ULong const length = larger.length();
  CORBA::ULong const maximum = larger.maximum();
  page.replace(maximum, length, larger.get_buffer(true), true);
}

} // namespace

// ---- their idle time ----

void add2Evictor(CORBA::OctetSeq const& objectId, PortableServer::POA* poa, Orb& orb, long timeout)
{
  try
  {
    orb.getEvictor().addObject(ACE_Time_Value(timeout), poa, objectId, CORBA::OctetSeq());
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "add2Evictor",
            "Caught CORBA exception while add2Evictor, " << corbaExceptionText(exception));
    throw;
  }
}

void removeFromEvictor(CORBA::OctetSeq_var& objectId, Orb& orb)
{
  if (objectId.operator->() == nullptr || objectId->length() == 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "removeFromEvictor",
            "Nothing to be evicted, Object ID is not valid");
    return;
  }
  orb.getEvictor().removeObject(objectId.in(), true, true);
}

// ---- discoveries ----

DiscoveryIterator_i::DiscoveryIterator_i(
    Quillon::Tessarine::Ozf::DiscoverySvc::DiscoveryIterator* iterator)
    : m_discoveryIterator(
          AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::DiscoveryIterator>::retain(
              iterator)),
      m_pageSize(DEFAULT_PAGE_SIZE)
{
  OzfHostname local;
  local.setLocal();
  m_localHost = local.toString();
  if (m_discoveryIterator)
    getDiscoveryRepository().getBarrier().add(*m_discoveryIterator);
}

CORBA::Long DiscoveryIterator_i::pageSize()
{
  requireOwner("DiscoveryIterator_i::pageSize");
  std::lock_guard const guard(oneCaller());
  return m_pageSize;
}

void DiscoveryIterator_i::pageSize(CORBA::Long size)
{
  requireOwner("DiscoveryIterator_i::pageSize");
  std::lock_guard const guard(oneCaller());
  m_pageSize = size;
}

DiscoverySeq* DiscoveryIterator_i::getNextPage()
{
  constexpr char const* OPERATION = "DiscoveryIterator_i::getNextPage";
  requireOwner(OPERATION);
  std::lock_guard const guard(oneCaller());
  OZF_ASSERT(m_discoveryIterator, "NULL != m_discoveryIterator", SOURCE, OPERATION);
  auto const preallocated = std::clamp<CORBA::Long>(m_pageSize, 0, MAX_PREALLOCATED);
  DiscoverySeq_var page = new DiscoverySeq(static_cast<CORBA::ULong>(preallocated));
  if (m_pageSize < 0)
    return page._retn();

  std::string const localService = getDiscoveryRepository().getOrbServiceName();
  std::size_t bytes = 0;
  CORBA::Long count = 0;
  auto const take = [&](ListedDiscovery const& listed)
  {
    if (page->length() == page->maximum())
      makeRoom(page.inout());
    page->length(page->length() + 1);
    Discovery& record = page[page->length() - 1];
    record.queryType = DQ_UNDEFINED;
    record.subject = listed.subject.c_str();
    record.authority = listed.authority.c_str();
    record.authType = listed.authorityType;
    toWire(listed.attributes, record.attributes);
    record.sourceHost = m_localHost.c_str();
    auto const* const remote = dynamic_cast<RemoteExplorerPull const*>(listed.discovery);
    record.sourceServiceName =
        remote != nullptr ? remote->getServiceName().c_str() : localService.c_str();
    bytes += RECORD_OVERHEAD + listed.subject.size() + listed.authority.size() +
             m_localHost.size() + localService.size();
    if (count == m_pageSize)
      return false; // the counter of the greatest page size must not overflow
    ++count;
    return bytes < static_cast<std::size_t>(MAX_PAGE_BYTES);
  };
  // Until the page is whole: an exception would take it along.
  bool const lostBefore = std::exchange(m_lostPage, true);
  m_discoveryIterator->list(take);
  m_lostPage = lostBefore;
  if (page->length() == 0 && (m_lostPage || m_discoveryIterator->isIncomplete()))
    throw CORBA::PERSIST_STORE(0, CORBA::COMPLETED_NO);
  return page._retn();
}

void DiscoveryIterator_i::release()
{
  constexpr char const* OPERATION = "DiscoveryIterator_i::release";
  requireOwner(OPERATION);
  std::lock_guard const guard(oneCaller());
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "releasing discovery iterator");
  removeFromEvictor(objectId(), *getDiscoveryRepository().getOrb());
  m_discoveryIterator.reset();
}

std::size_t DiscoveryIterator_i::evictionCost() const noexcept
{
  auto const* const remote =
      dynamic_cast<RemoteDiscoveryIterator const*>(m_discoveryIterator.get());
  return remote == nullptr ? 0 : remote->heldBytes();
}

// ---- collection data ----

CollectionDataIterator_i::CollectionDataIterator_i(
    AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>& discovery)
    : m_discovery(discovery), m_pageSize(DEFAULT_PAGE_SIZE)
{
  OZF_ASSERT(m_pageSize > 0, "m_pageSize > 0", SOURCE,
             "CollectionDataIterator_i::CollectionDataIterator_i");
  getDiscoveryRepository().getBarrier().add(*m_discovery);
}

CORBA::Long CollectionDataIterator_i::pageSize()
{
  requireOwner("CollectionDataIterator_i::pageSize");
  std::lock_guard const guard(oneCaller());
  return m_pageSize;
}

void CollectionDataIterator_i::pageSize(CORBA::Long size)
{
  requireOwner("CollectionDataIterator_i::pageSize");
  std::lock_guard const guard(oneCaller());
  m_pageSize = size;
}

bool CollectionDataIterator_i::open(char const* filter)
{
  CollectionData* const data = m_discovery->getCollectionData();
  if (data != nullptr && data->open(OM_READ, filter))
    return true;
  OZF_LOG(getOzfLogger(), 1, SOURCE, "CollectionDataIterator_i::open", "Failed to open collection");
  return false;
}

CollectionDataSeq* CollectionDataIterator_i::getNextPage()
{
  constexpr char const* OPERATION = "CollectionDataIterator_i::getNextPage";
  requireOwner(OPERATION);
  std::lock_guard const guard(oneCaller());
  if (m_readFailed)
    throw CORBA::PERSIST_STORE(0, CORBA::COMPLETED_NO);
  auto const size = static_cast<CORBA::ULong>(std::clamp<long>(m_pageSize, 0, MAX_PAGE_BYTES));
  CollectionDataSeq_var page = new CollectionDataSeq(size);
  page->length(size);
  if (!m_discovery || size == 0)
  {
    page->length(0);
    return page._retn();
  }

  long const count = m_discovery->getCollectionData()->readCollection(size, page->get_buffer());
  if (count < 0)
  {
    m_readFailed = true;
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to read from CollectionData");
    page->length(0);
  }
  else
    page->length(static_cast<CORBA::ULong>(count));
  return page._retn();
}

void CollectionDataIterator_i::release()
{
  constexpr char const* OPERATION = "CollectionDataIterator_i::release";
  requireOwner(OPERATION);
  std::lock_guard const guard(oneCaller());
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Releasing collection data iterator");
  removeFromEvictor(objectId(), *getDiscoveryRepository().getOrb());
  m_discovery.reset();
  if (m_readFailed)
    throw CORBA::PERSIST_STORE(0, CORBA::COMPLETED_YES);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
