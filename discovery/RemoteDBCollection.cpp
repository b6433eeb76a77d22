// The payload of a remote discovery; belongs to RemoteDB.

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryLoopGuard.h"
#include "discovery/Peers.h"
#include "discovery/RemoteDB.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "RemoteDB";

LoopCounter& openWriteCounter()
{
  static LoopCounter counter;
  return counter;
}

using DataIterator =
    AutoReleaseIterator<Remote::CollectionDataIterator_var, Remote::CollectionDataIterator_ptr>;

// Releases an iterator whose pages have ended. The release reports what the
// empty page cannot: that they ended at an error. That exception is passed on, all
// others say nothing about what was read.
void releaseRead(DataIterator& iterator)
{
  try
  {
    iterator.release();
  }
  catch (CORBA::PERSIST_STORE const&)
  {
    throw;
  }
  catch (CORBA::Exception const&)
  {
    // The other side drops the iterator by itself when it is idle.
  }
}

void logTooSlow(Remote::Discovery const& record)
{
  OZF_LOG(getOzfLogger(), 1, SOURCE, "RemoteCollectionData::openRead",
          "Collection data from " << record.sourceHost.in() << " comes too slowly");
}

// Asks for pages of the configured size, when one is configured.
void requestPageSize(Remote::CollectionDataIterator_ptr iterator)
{
  long pageSize = 0;
  if (getConfiguration()->getInteger(configKey("COLLECTION_PAGE_SIZE"), pageSize) && pageSize > 0)
    iterator->pageSize(static_cast<CORBA::Long>(std::min(pageSize, MAX_PAGE_BYTES)));
}

// Bytes a put; a mistake in the configuration leaves the default.
unsigned long writeSize()
{
  long const size = getConfiguration()->number(configKey("COLLECTION_WRITE_SIZE"));
  return static_cast<unsigned long>(size);
}

// For how many puts of the default size one of that many bytes counts: a slow way
// to the master is no slower for taking more at a time.
std::size_t countOfPuts(unsigned long bytes)
{
  auto const each = static_cast<unsigned long>(configKey("COLLECTION_WRITE_SIZE").number);
  return (bytes + each - 1) / each;
}

} // namespace

RemoteCollectionData::RemoteCollectionData(DiscoveryQuery query) : m_query(query) {}

RemoteCollectionData::RemoteCollectionData(std::unique_ptr<Remote::Discovery> record, bool own)
    : m_query(record->queryType), m_own(own), m_discovery(std::move(record))
{
}

RemoteCollectionData::~RemoteCollectionData() = default;

int RemoteCollectionData::open(OpenMode mode, char const* name)
{
  switch (mode)
  {
  case OM_READ:
    return openRead(name != nullptr ? name : "") ? 1 : 0;
  case OM_UPDATE:
    return openWrite() ? 1 : 0;
  default:
    assertionFailed("SHOULD_NOT_GET_HERE", "RemoteCollectionData::open", SOURCE, __LINE__);
  }
}

Remote::DiscoveryService_ptr RemoteCollectionData::connect() const
{
  OzfHostname master;
  getPeers().getMasterServerName(master);
  if (master.empty())
    return Remote::DiscoveryService::_nil();
  return getPeers().connect(master, DISCOVERY_SERVICE);
}

Remote::DiscoveryService_ptr RemoteCollectionData::connectToSource() const
{
  OzfHostname host;
  host.setHostname(m_discovery->sourceHost.in());
  char const* const name = m_discovery->sourceServiceName.in();
  return m_own ? getPeers().connectToOwn(host, name) : getPeers().connect(host, name);
}

bool RemoteCollectionData::openRead(char const* filter)
{
  constexpr char OPERATION[] = "RemoteCollectionData::openRead";
  OZF_ASSERT(m_discovery != nullptr, "0 != m_discovery.ptr()", SOURCE, OPERATION);
  m_cached = false;
  m_position = 0;
  m_cache.clear();
  // Before a deadline there may be several answers; this one would be too late.
  if (ReadDeadline::passed())
  {
    logTooSlow(*m_discovery);
    return false;
  }
  try
  {
    Remote::DiscoveryService_var const service = connectToSource();
    if (CORBA::is_nil(service.in()))
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to connect to discovery service");
      return false;
    }
    Remote::CollectionDataIterator_var iterator;
    DiscoveryStatus const status = service->getCollectionData(*m_discovery, filter, iterator.out());
    if (status != DS_SUCCESS)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Failed to get collection data: " << static_cast<int>(status));
      return false;
    }
    m_cached = fetch(iterator._retn());
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(
        getOzfLogger(), 1, SOURCE, OPERATION,
        "Caught CORBA Exception while reading collection data: " << corbaExceptionText(exception));
  }
  return m_cached;
}

bool RemoteCollectionData::fetch(Remote::CollectionDataIterator_ptr remote)
{
  constexpr char OPERATION[] = "RemoteCollectionData::openRead";
  DataIterator iterator(remote);
  DrainLimit limit = DrainLimit::forAnswer();
  if (!getPeers().isShuttingDown())
    requestPageSize(remote);
  for (std::size_t calls = 0;; ++calls)
  {
    if (getPeers().isShuttingDown())
    {
      iterator.abandon();
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Shutting down, gave up the collection data from " << m_discovery->sourceHost.in());
      return false;
    }
    if (limit.exceeded(calls))
    {
      logTooSlow(*m_discovery);
      return false;
    }
    Remote::CollectionDataSeq_var page = iterator->getNextPage();
    if (page->length() == 0)
    {
      if (calls == 0)
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Collection data returned has no data");
      releaseRead(iterator);
      return calls != 0;
    }
    std::size_t const most = std::min(MAX_SIZE, ReadSize::ofThread());
    if (m_cache.size() + page->length() > most)
    {
      // Who has set a smaller limit looks for that.
      OZF_LOG(getOzfLogger(), most == MAX_SIZE ? 1 : 4, SOURCE, OPERATION,
              "Collection data from " << m_discovery->sourceHost.in() << " exceeds " << most
                                      << " bytes");
      return false;
    }
    if (!keep(page.inout()))
      return false;
    limit.rest();
  }
}

bool RemoteCollectionData::keep(Remote::CollectionDataSeq& page)
{
  CORBA::ULong const count = page.length();
  // Null when the bytes are not the page's own.
  CORBA::Octet* const bytes = page.get_buffer(true);
  if (bytes == nullptr)
    return m_cache.append(reinterpret_cast<char const*>(std::as_const(page).get_buffer()), count);
  return m_cache.append(PayloadCache::Piece(reinterpret_cast<char*>(bytes),
                                            [](char* piece) {
                                              Remote::CollectionDataSeq::freebuf(
                                                  reinterpret_cast<CORBA::Octet*>(piece));
                                            }),
                        count);
}

long RemoteCollectionData::readCollection(unsigned long len, void* buf) const
{
  OZF_ASSERT(m_cached, "m_cached", SOURCE, "RemoteCollectionData::readCollection");
  long const count = m_cache.read(m_position, len, buf);
  if (count > 0)
    m_position += static_cast<std::size_t>(count);
  return count;
}

void RemoteCollectionData::fillRecord(Remote::Discovery& record) const
{
  constexpr char OPERATION[] = "RemoteCollectionData::openWrite";
  OZF_ASSERT(m_subject != nullptr, "NULL != m_subject", SOURCE, OPERATION);
  OZF_ASSERT(m_authority != nullptr, "NULL != m_authority", SOURCE, OPERATION);
  OzfHostname local;
  local.setLocal();
  record.queryType = m_query;
  record.subject = m_subject->getName().c_str();
  record.authority = m_authority->getName().c_str();
  record.authType = m_authority->getType();
  toWire(m_attributes, record.attributes);
  record.sourceHost = local.exportNarrow().c_str();
  record.sourceServiceName = getPeers().getOrbServiceName().c_str();
}

bool RemoteCollectionData::hasFreshWriter() const
{
  return !CORBA::is_nil(m_writer.in()) && m_puts == 0 && m_recordSent && !m_writer->_non_existent();
}

bool RemoteCollectionData::openWrite()
{
  constexpr char OPERATION[] = "RemoteCollectionData::openWrite";
  LoopGuard const guard(openWriteCounter());
  try
  {
    Remote::DiscoveryService_var const service = connect();
    if (CORBA::is_nil(service.in()))
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to connect to discovery service");
      return false;
    }
    if (hasFreshWriter())
      return true;
    Remote::Discovery record;
    fillRecord(record);
    if (guard.exceeded())
    {
      OzfHostname master;
      getPeers().getMasterServerName(master);
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Hostname detected as remote and/or master, but appears to be connecting back to "
              "self, RemoteHost: "
                  << master.exportNarrow());
      return false;
    }
    Remote::RemoteWriter_var writer;
    DiscoveryResult const result = service->putCollection(record, writer.out());
    if (!isSuccess(result))
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Failed to open the collection data: " << static_cast<int>(result.discStatus));
      return false;
    }
    if (CORBA::is_nil(writer.in()))
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Failed to open the collection data: no writer was returned");
      return false;
    }
    m_writer = writer._retn();
    m_putLimit = {};
    m_putLimit.pause();
    m_puts = 0;
    m_recordSent = true;
    return true;
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(
        getOzfLogger(), 1, SOURCE, OPERATION,
        "Caught CORBA Exception while saving collection data: " << corbaExceptionText(exception));
  }
  return false;
}

long RemoteCollectionData::writeCollection(unsigned long len, void const* buf) const
{
  constexpr char OPERATION[] = "RemoteCollectionData::writeCollection";
  OZF_ASSERT(!CORBA::is_nil(m_writer.in()), "NULL != m_writer", SOURCE, OPERATION);
  auto const* bytes = static_cast<char const*>(buf);
  struct Running
  {
    explicit Running(DrainLimit& stopped) : limit(stopped) { limit.resume(); }
    ~Running() { limit.pause(); }
    DrainLimit& limit;
  } const running(m_putLimit);
  unsigned long const most = writeSize();
  try
  {
    for (unsigned long left = len; left != 0;)
    {
      if (running.limit.exceeded(m_puts))
      {
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
                "The master takes the collection data too slowly");
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to write buffer");
        return 0;
      }
      unsigned long const size = std::min(left, most);
      m_puts += countOfPuts(size);
      Remote::CollectionDataSeq chunk;
      chunk.length(static_cast<CORBA::ULong>(size));
      std::memcpy(chunk.get_buffer(), bytes, size);
      if (!m_writer->put(chunk))
      {
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to write buffer");
        return 0;
      }
      bytes += size;
      left -= size;
    }
    return 1;
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Caught CORBA Exception during remote write: " << corbaExceptionText(exception));
  }
  return 0;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
