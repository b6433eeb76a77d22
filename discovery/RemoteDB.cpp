#include "discovery/RemoteDB.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/RemoteDBDrain.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/config/HostRole.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <cstring>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "RemoteDB";

} // namespace

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

Discovery* RemoteDBCreator::newDiscovery(Remote::Discovery* record)
{
  // From here on the discovery answers for the payload, and that for the
  // record, also when the construction fails.
  auto* const data = new RemoteCollectionData(std::unique_ptr<Remote::Discovery>(record));
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
  remoteData("RemoteDiscovery::setSubject")->m_subject = subject;
}

void RemoteDiscovery::setAuthority(Authority* authority)
{
  Discovery::setAuthority(authority);
  remoteData("RemoteDiscovery::setAuthority")->m_authority = authority;
}

void RemoteDiscovery::setAttributes(CollectionAttributes* attributes)
{
  Discovery::setAttributes(attributes);
  remoteData("RemoteDiscovery::setAttributes")->m_attributes = attributes;
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
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to fetch discoveries: " << m_failure);
}

void RemoteDiscoveryIterator::fetch(Remote::DiscoveryIterator_ptr remote)
{
  AutoReleaseIterator<Remote::DiscoveryIterator_var, Remote::DiscoveryIterator_ptr> iterator(
      Remote::DiscoveryIterator::_duplicate(remote));
  DrainLimit const limit;
  std::size_t bytes = 0;
  for (std::size_t calls = 1;; ++calls)
  {
    if (getDiscoveryRepository().isShuttingDown())
    {
      iterator.abandon();
      m_failure = "shutting down";
      return;
    }
    Remote::DiscoverySeq_var page = iterator->getNextPage();
    if (page->length() == 0)
      return;
    for (CORBA::ULong i = 0; i < page->length(); ++i)
    {
      Remote::Discovery const& record = page[i];
      bytes += sizeof record + std::strlen(record.subject) + std::strlen(record.authority) +
               std::strlen(record.sourceHost) + std::strlen(record.sourceServiceName);
      m_records.push_back(std::make_unique<Remote::Discovery>(record));
    }
    if (m_records.size() > MAX_RECORDS)
      m_failure = "more than " + std::to_string(MAX_RECORDS) + " discoveries";
    else if (bytes > MAX_RECORD_BYTES)
      m_failure = "more than " + std::to_string(MAX_RECORD_BYTES) + " bytes of discoveries";
    else if (limit.exceeded(calls))
      m_failure = "the discoveries come too slowly";
    if (!m_failure.empty())
      return;
  }
}

Discovery* RemoteDiscoveryIterator::getNext()
{
  while (!m_records.empty())
  {
    std::unique_ptr<Remote::Discovery> record = std::move(m_records.front());
    m_records.pop_front();
    if (areUsableNames(record->subject, record->authority))
      return getRemoteDiscoveryDatabase().newDiscovery(record.release());
    OZF_LOG(getOzfLogger(), 1, SOURCE, "RemoteDiscoveryIterator::getNext",
            "Passed over a discovery from " << record->sourceHost.in()
                                            << " with an unusable subject or authority name");
  }
  return nullptr;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
