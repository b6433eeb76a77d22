#include "discovery/DiscoveryService_iWriter.h"

#include "discovery/CallPlaces.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/PeerLimits.h"
#include "discovery/RemoteDB.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/Orb.h"
#include "ozf/orb/Peer.h"

#include <memory>
#include <optional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

namespace
{

constexpr char SOURCE[] = "DiscoveryService_i";

Discovery withoutSource(Discovery const& record)
{
  Discovery copy;
  copy.queryType = record.queryType;
  copy.subject = record.subject;
  copy.authority = record.authority;
  copy.authType = record.authType;
  copy.attributes = record.attributes;
  copy.sourceHost = "";
  copy.sourceServiceName = "";
  return copy;
}

Peer openerOfCall()
{
  Peer const* const peer = currentPeer();
  return peer == nullptr ? Peer() : *peer;
}

CallPlaces& relayedCalls()
{
  static CallPlaces places(RemoteWriter_i::MOST_RELAYED, RemoteWriter_i::MOST_RELAYED / 2);
  return places;
}

} // namespace

RemoteWriter_i::RemoteWriter_i(Discovery const& record)
    : RemoteWriter_i(record, static_cast<std::uint64_t>(getLimits().payload.value()))
{
}

RemoteWriter_i::RemoteWriter_i(Discovery const& record, std::uint64_t mostBytes)
    : m_opener(openerOfCall()), m_mostBytes(mostBytes), m_record(withoutSource(record))
{
}

void RemoteWriter_i::setReference(CORBA::Object_ptr reference)
{
  m_reference = CORBA::Object::_duplicate(reference);
}

DiscoveryRepository& RemoteWriter_i::getDiscoveryRepository() const
{
  return Quillon::Tessarine::Ozf::DiscoverySvc::getDiscoveryRepository();
}

DiscoveryResult RemoteWriter_i::open()
{
  std::unique_ptr<CollectionAttributes> const attributes(fromWire(m_record.attributes));
  Authority const authority(m_record.authority.in(), m_record.authType);
  Subject const subject(m_record.subject.in());
  getDiscoveryRepository().newDiscovery(m_discovery, m_record.queryType, subject, authority,
                                        *attributes);
  getDiscoveryRepository().getBarrier().add(*m_discovery);
  m_relayed = dynamic_cast<RemoteDiscovery const*>(m_discovery.get()) != nullptr;
  return {m_discovery->open(OM_UPDATE, ""), 0};
}

void RemoteWriter_i::requireNotClosed() const
{
  if (m_closed)
    throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
}

std::string RemoteWriter_i::names() const
{
  return "subject " + std::string(m_record.subject) + " & authority " +
         std::string(m_record.authority);
}

AuditedCall RemoteWriter_i::audited(char const* operation) const
{
  return {operation, m_record.subject.in(), m_record.authority.in()};
}

void RemoteWriter_i::audit(std::string_view result)
{
  m_audited = true;
  auditCall(m_opener.address.empty() ? nullptr : &m_opener, audited("putCollection"), result);
}

void RemoteWriter_i::abandon()
{
  std::lock_guard const guard(m_oneCaller);
  if (!m_closed && !m_audited)
    audit(m_incomplete ? "not stored: a part could not be written"
                       : "not stored: the writer was never closed");
  m_closed = true;
  m_discovery.reset();
}

bool RemoteWriter_i::isBusy()
{
  return !std::unique_lock(m_oneCaller, std::try_to_lock).owns_lock();
}

// A place for the call where it may wait for another host, and the writer's
// lock behind it: who waits for that holds a thread as well. A call that is
// refused does not wait, and the one in progress finds out at its end.
class RemoteWriter_i::Call
{
public:
  Call(RemoteWriter_i& writer, char const* operation)
  {
    Peer const* const peer = currentPeer();
    if (writer.m_relayed && peer != nullptr)
      m_place.emplace(relayedCalls(), RELAY_PATIENCE);
    if (!m_place || m_place->taken())
    {
      m_lock = std::unique_lock(writer.m_oneCaller);
      return;
    }
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
            "Refused a call of " << peer->address << ": " << MOST_RELAYED
                                 << " that write wait for the master already, " << writer.names());
    auditRefusal(peer, writer.audited(operation),
                 "too many that write wait for the master already");
    writer.m_refused = true;
    m_lock = std::unique_lock(writer.m_oneCaller, std::try_to_lock);
  }

  // False when another is in progress that this one could not wait for.
  bool isAlone() const noexcept { return m_lock.owns_lock(); }

private:
  std::optional<CallPlace> m_place;
  std::unique_lock<std::mutex> m_lock;
};

CORBA::Boolean RemoteWriter_i::put(CollectionDataSeq const& data)
{
  m_owner.require("RemoteWriter_i::put");
  bool written = false;
  try
  {
    written = append(data);
  }
  catch (...)
  {
    getOpenWriters().noteFailed(*this);
    throw;
  }
  // The writer is not locked any more: others may have to give way to it.
  if (written)
    getOpenWriters().notePut(*this);
  else if (!isBusy())
    getOpenWriters().noteFailed(*this);
  return written;
}

bool RemoteWriter_i::append(CollectionDataSeq const& data)
{
  constexpr char const* OPERATION = "RemoteWriter_i::put";
  Call const call(*this, OPERATION);
  if (!call.isAlone())
    return false;
  requireNotClosed();
  OZF_ASSERT(m_discovery || m_incomplete, "NULL != m_discovery", SOURCE, OPERATION);
  if (m_incomplete)
    return false;
  m_incomplete = true;
  // Callers of whom a put failed need not close. Their temporary file must not
  // wait for that: it has one of the few numbers, and room on a full disk.
  struct Abandon
  {
    RemoteWriter_i& writer;
    ~Abandon()
    {
      if (writer.m_incomplete)
        writer.m_discovery.reset();
    }
  } const abandon{*this};
  if (!m_refused && m_mostBytes != 0 && data.length() > m_mostBytes - m_bytes)
  {
    Peer const* const peer = currentPeer();
    if (auto const met = getLimits().payload.meet(peer == nullptr ? "this service" : peer->address))
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Refused a payload of more than "
                  << m_mostBytes << " bytes, " << names()
                  << (peer == nullptr ? std::string() : ", of " + peer->address) << *met);
    auditRefusal(audited(OPERATION), "the payload is too large");
    return false;
  }
  if (!m_refused)
    requireDayBytes(OPERATION, audited(OPERATION), data.length());
  if (!m_refused &&
      m_discovery->getCollectionData()->writeCollection(data.length(), data.get_buffer()) != 0)
  {
    m_bytes += data.length();
    m_incomplete = m_refused;
  }
  return !m_incomplete;
}

DiscoveryStatus RemoteWriter_i::persist()
{
  try
  {
    return m_discovery->persist();
  }
  catch (...)
  {
    // What comes of the writer later, when it goes, tells nothing of the discovery.
    audit("may be stored: storing it ended with an exception");
    throw;
  }
}

DiscoveryResult RemoteWriter_i::close()
{
  constexpr char const* OPERATION = "RemoteWriter_i::close";
  m_owner.require(OPERATION);
  DiscoveryResult result{DS_OPEN_FAILED, 0};
  Call const call(*this, OPERATION);
  if (!call.isAlone())
    return result;
  requireNotClosed();
  OZF_ASSERT(m_discovery || m_incomplete, "NULL != m_discovery", SOURCE, OPERATION);
  if (m_incomplete || m_refused)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Abandoned a discovery of which a part could not be written, " << names());
  else
    result.discStatus = persist();
  audit(m_incomplete || m_refused ? "not stored: a part could not be written"
                                  : resultText(result.discStatus));
  // Not before: if an exception ends that, the writer goes when it has been idle.
  getOpenWriters().remove(*this);
  getDiscoveryRepository().getOrb()->destroyObjectRef(m_reference);
  m_reference = CORBA::Object::_nil();
  m_discovery.reset();
  m_closed = true;
  return result;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
