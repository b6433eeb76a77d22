#include "discovery/RemoteDB.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/Peers.h"
#include "discovery/RemoteDBDrain.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/Peer.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <cstring>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "RemoteDB";

std::size_t sizeOf(Remote::Discovery const& record)
{
  return sizeof record + std::strlen(record.subject) + std::strlen(record.authority) +
         std::strlen(record.sourceHost) + std::strlen(record.sourceServiceName);
}

// With what allocation adds for the record, its four strings and its place in
// the list.
std::size_t heldSizeOf(Remote::Discovery const& record)
{
  constexpr std::size_t OVERHEAD = 96;
  return sizeOf(record) + OVERHEAD;
}

} // namespace

void requestPageSize(Remote::DiscoveryIterator_ptr iterator)
{
  long records = 0;
  if (!getConfiguration()->getInteger(configKey("DISCOVERY_PAGE_SIZE"), records) || records == 0)
    return;
  auto const refused = [](CORBA::SystemException const& exception)
  {
    OZF_LOG(getOzfLogger(), 4, SOURCE, "RemoteDB::requestPageSize",
            "The other host chooses its pages itself: " << corbaExceptionText(exception));
  };
  try
  {
    iterator->pageSize(static_cast<CORBA::Long>(records));
  }
  catch (CORBA::BAD_PARAM const& exception)
  {
    refused(exception);
  }
  catch (CORBA::BAD_OPERATION const& exception)
  {
    refused(exception);
  }
  catch (CORBA::NO_IMPLEMENT const& exception)
  {
    refused(exception);
  }
  catch (CORBA::NO_PERMISSION const& exception)
  {
    refused(exception);
  }
  catch (CORBA::UNKNOWN const& exception)
  {
    refused(exception);
  }
}

RemoteDBCreator::RemoteDBCreator() { setIsMaster(); }

void RemoteDBCreator::setIsMaster()
{
  m_isMaster = IsRunningOnMasterServer() == 0;
  OZF_LOG(getOzfLogger(), 4, SOURCE, "RemoteDBCreator::setIsMaster", "isMaster: " << m_isMaster);
}

Discovery* RemoteDBCreator::newDiscovery(DiscoveryQuery query)
{
  return new RemoteDiscovery(new RemoteCollectionData(query), query);
}

Discovery* RemoteDBCreator::newDiscovery(Remote::Discovery* record, bool own)
{
  // From here on the discovery answers for the payload, and that for the
  // record, also when the construction fails.
  auto* const data = new RemoteCollectionData(std::unique_ptr<Remote::Discovery>(record), own);
  return new RemoteDiscovery(data, record);
}

DiscoveryIterator* RemoteDBCreator::getIterator(DiscoveryQuery) const
{
  assertionFailed("SHOULD_NOT_GET_HERE", "RemoteDBCreator::getIterator", SOURCE, __LINE__);
}

RemoteDBCreator& getRemoteDiscoveryDatabase()
{
  return *ACE_Singleton<RemoteDBCreator, ACE_Recursive_Thread_Mutex>::instance();
}

RemoteDiscovery::RemoteDiscovery(CollectionData* data, DiscoveryQuery query)
    : Discovery(data, query)
{
}

RemoteDiscovery::RemoteDiscovery(CollectionData* data, Remote::Discovery const* record)
    : Discovery(data, record->queryType)
{
  RemoteDiscovery::setAuthority(new Authority(record->authority.in(), record->authType));
  RemoteDiscovery::setSubject(new Subject(record->subject.in()));
  RemoteDiscovery::setAttributes(fromWire(record->attributes));
}

RemoteCollectionData* RemoteDiscovery::remoteData(char const* operation) const
{
  auto* const data = dynamic_cast<RemoteCollectionData*>(getCollectionData());
  OZF_ASSERT(data != nullptr, "NULL != cd", SOURCE, operation);
  return data;
}

void RemoteDiscovery::setSubject(Subject* subject)
{
  Discovery::setSubject(subject);
  RemoteCollectionData* const data = remoteData("RemoteDiscovery::setSubject");
  data->m_subject = subject;
  data->m_recordSent = false;
}

void RemoteDiscovery::setAuthority(Authority* authority)
{
  Discovery::setAuthority(authority);
  RemoteCollectionData* const data = remoteData("RemoteDiscovery::setAuthority");
  data->m_authority = authority;
  data->m_recordSent = false;
}

void RemoteDiscovery::setAttributes(CollectionAttributes* attributes)
{
  Discovery::setAttributes(attributes);
  RemoteCollectionData* const data = remoteData("RemoteDiscovery::setAttributes");
  data->m_attributes = attributes;
  data->m_recordSent = false;
}

DiscoveryStatus RemoteDiscovery::open(OpenMode mode, char const* name)
{
  OZF_ASSERT(getCollectionData() != nullptr, "getCollectionData()", SOURCE,
             "RemoteDiscovery::open");
  return getCollectionData()->open(mode, name) != 0 ? DS_SUCCESS : DS_OPEN_FAILED;
}

DiscoveryStatus RemoteDiscovery::persist()
{
  constexpr char OPERATION[] = "RemoteDiscovery::persist";
  RemoteCollectionData* const data = remoteData(OPERATION);
  OZF_ASSERT(!CORBA::is_nil(data->m_writer.in()), "NULL != cd->m_writer", SOURCE, OPERATION);

  Remote::RemoteWriter_var const writer = data->m_writer._retn();
  try
  {
    return writer->close().discStatus;
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(
        getOzfLogger(), 1, SOURCE, OPERATION,
        "Caught CORBA Exception while persisting discoveries: " << corbaExceptionText(exception));
  }
  return DS_COM_ERROR;
}

RemoteDiscoveryIterator::RemoteDiscoveryIterator(AuthorityType const& type,
                                                 std::string const& subject,
                                                 std::string const& authority,
                                                 Remote::DiscoveryIterator_ptr remote)
    : DiscoveryIterator(type, subject, authority)
{
  constexpr char OPERATION[] = "RemoteDiscoveryIterator::RemoteDiscoveryIterator";
  try
  {
    fetch(remote);
  }
  catch (CORBA::Exception const& exception)
  {
    m_failure = corbaExceptionText(exception);
    m_raised = true;
  }
  if (m_failure.empty())
    return;
  m_records.clear();
  m_held.clear();
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to fetch discoveries: " << m_failure);
}

void RemoteDiscoveryIterator::fetch(Remote::DiscoveryIterator_ptr remote)
{
  AutoReleaseIterator<Remote::DiscoveryIterator_var, Remote::DiscoveryIterator_ptr> iterator(
      Remote::DiscoveryIterator::_duplicate(remote));
  DrainLimit limit = DrainLimit::forAnswer();
  requestPageSize(remote);
  for (std::size_t calls = 0;; ++calls)
  {
    if (getPeers().isShuttingDown())
    {
      iterator.abandon();
      m_failure = "shutting down";
      return;
    }
    if (limit.exceeded(calls))
    {
      m_failure = "the discoveries come too slowly";
      return;
    }
    Remote::DiscoverySeq_var page;
    try
    {
      page = iterator->getNextPage();
    }
    catch (CORBA::PERSIST_STORE const&)
    {
      setIncomplete();
      OZF_LOG(getOzfLogger(), 1, SOURCE, "RemoteDiscoveryIterator::RemoteDiscoveryIterator",
              "Some discoveries are missing, the other host could not read them all");
      return;
    }
    if (page->length() == 0 || !keep(page.inout()))
      return;
    limit.rest();
  }
}

bool RemoteDiscoveryIterator::keep(Remote::DiscoverySeq& page)
{
  std::size_t held = 0;
  for (CORBA::ULong i = 0; i < page.length(); ++i)
  {
    m_bytes += sizeOf(page[i]);
    held += heldSizeOf(page[i]);
  }
  if (m_records.size() + page.length() > MAX_RECORDS)
    m_failure = "more than " + std::to_string(MAX_RECORDS) + " discoveries";
  else if (m_bytes > MAX_RECORD_BYTES)
    m_failure = "more than " + std::to_string(MAX_RECORD_BYTES) + " bytes of discoveries";
  else if (!m_held.add(page.length(), held))
  {
    m_failure = "the answers of other hosts that are held for readers take too much";
    if (currentPeer() != nullptr)
      auditRefusal({"queryDiscoveries", getSubjectFilter(), getAuthorityFilter()}, m_failure);
  }
  if (!m_failure.empty())
    return false;
  for (CORBA::ULong i = 0; i < page.length(); ++i)
    moveRecord(page[i], *m_records.emplace_back(std::make_unique<Remote::Discovery>()));
  return true;
}

std::unique_ptr<Remote::Discovery> RemoteDiscoveryIterator::takeFirst()
{
  std::unique_ptr<Remote::Discovery> record = std::move(m_records.front());
  m_records.pop_front();
  m_held.remove(1, heldSizeOf(*record));
  return record;
}

Discovery* RemoteDiscoveryIterator::getNext()
{
  while (!m_records.empty())
  {
    std::unique_ptr<Remote::Discovery> record = takeFirst();
    if (areUsableNames(record->subject, record->authority))
      return getRemoteDiscoveryDatabase().newDiscovery(record.release());
    OZF_LOG(getOzfLogger(), 1, SOURCE, "RemoteDiscoveryIterator::getNext",
            "Passed over a discovery from " << record->sourceHost.in()
                                            << " with an unusable subject or authority name");
  }
  return nullptr;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
