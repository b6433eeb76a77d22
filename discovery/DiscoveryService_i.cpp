#include "discovery/DiscoveryService_i.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/DiscoveryRepositoryRefresh.h"
#include "discovery/DiscoveryServant.h"
#include "discovery/DiscoveryService_iIterators.h"
#include "discovery/DiscoveryService_iWriter.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/OpenWriters.h"
#include "discovery/PeerLimits.h"
#include "discovery/RefreshRequests.h"
#include "ozf/config/HostAnswers.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/CallRights.h"
#include "ozf/orb/Orb.h"
#include "ozf/orb/OrbService.h"
#include "ozf/tls/Certificate.h"

#include <sstream>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

namespace
{

constexpr char SOURCE[] = "DiscoveryService_i";

// Patterns may be empty.
bool isUsablePattern(std::string_view name) { return name.size() <= MAX_WIRE_NAME; }

// The name of a host or of a service on it.
bool isUsablePlace(std::string_view name) { return !name.empty() && name.size() <= MAX_KEPT_NAME; }

// Who writes does so in its own name, where the configuration says so.
void requireOwnName(char const* operation, AuditedCall const& call, char const* sourceHost)
{
  Peer const* const peer = currentPeer();
  if (peer == nullptr)
    return;
  std::string rule;
  try
  {
    if (mayWriteAs(*peer, sourceHost, rule))
      return;
  }
  catch (TooManyLookUps const& tooMany)
  {
    postponeCall(*peer, operation, call, tooMany);
  }
  refuseCall(*peer, operation, call,
             "it writes in the name of \"" + shownName(sourceHost) +
                 "\", which is neither its own nor for " + rule);
}

// For log lines.
std::string callerName()
{
  Peer const* const peer = currentPeer();
  return peer == nullptr ? "this service" : shownPeer(*peer);
}

// What keeps a registration out, and what can be done about it.
std::string describeStanding(Registration const& registration)
{
  ExplorerWrapper const& standing = *registration.standing;
  std::ostringstream text;
  text << "the entry of authority " << standing.getAuthority()->getName() << ", type "
       << standing.getAuthority()->getType() << ", priority " << standing.getPriority();
  if (registration.result == Registration::OWN)
    text << " is this host's own, which other hosts do not replace";
  else if (auto const* const remote =
               dynamic_cast<RemoteExplorerPull const*>(standing.getExplorer()))
    text << " from host " << remote->getHost().exportNarrow()
         << " is of higher priority; \"tqdiscoctl db forget\" with its names on this host removes "
            "it, once the service is started anew";
  else
    text << " is this host's own and of higher priority";
  return text.str();
}

template <class Servant>
CORBA::Object_ptr activate(Servant& servant, Orb& orb, AuditedCall const& call)
{
  try
  {
    return orb.activateEvictable(&servant, Servant::REPOSITORY_ID, servant.objectId().out());
  }
  catch (CORBA::NO_RESOURCES const&)
  {
    auditRefusal(call, "all iterators that there may be are in calls");
    throw;
  }
}

// Activates an iterator with the evictor and starts its idle time.
template <class Servant>
auto publish(Servant& servant, Orb& orb, AuditedCall const& call)
{
  using Interface = typename Servant::InterfaceType;
  CORBA::Object_var const object = activate(servant, orb, call);
  try
  {
    typename Interface::_var_type reference = Interface::_narrow(object);
    add2Evictor(servant.objectId().in(), orb.getEvictingPOA(), orb, ITERATOR_TIMEOUT);
    return reference._retn();
  }
  catch (CORBA::Exception const&)
  {
    removeFromEvictor(servant.objectId(), orb);
    throw;
  }
}

} // namespace

DiscoveryIterator_ptr DiscoveryService_i::queryDiscoveries(DiscoveryQuery queryType,
                                                           AuthorityType authType,
                                                           char const* subject,
                                                           char const* authority)
{
  constexpr char const* OPERATION = "DiscoveryService_i::queryDiscoveries";
  // Who may write, but not read, may look for requests to run explorers, and for
  // nothing else.
  AuditedCall const call{OPERATION, subject, authority};
  if (std::string const& lack = lackOfCall();
      !lack.empty() && std::string_view(authority) != REFRESH_PATTERN)
    refuseCall(*currentPeer(), OPERATION, call, lack);
  PeerPlace place = takeIteratorPlace(OPERATION, call);
  DiscoveryRepository& repository = getDiscoveryRepository();
  AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::DiscoveryIterator> iterator;
  if (isUsablePattern(subject) && isUsablePattern(authority))
    iterator.reset(repository.queryDiscoveries(queryType, subject, authority, authType));
  if (!iterator)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to create discovery iterator");
    throw CORBA::COMM_FAILURE(0, CORBA::COMPLETED_NO);
  }

  try
  {
    DiscoveryIterator_i* const servant = new DiscoveryIterator_i(iterator.get());
    PortableServer::ServantBase_var const localReference(servant);
    servant->setPlace(std::move(place));
    return publish(*servant, *repository.getOrb(), call);
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Caught CORBA exception creating object reference to discovery iterator");
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, corbaExceptionText(exception));
    throw;
  }
}

DiscoveryStatus DiscoveryService_i::getCollectionData(Discovery const& record, char const* filter,
                                                      CollectionDataIterator_out iterator)
{
  constexpr char const* OPERATION = "DiscoveryService_i::getCollectionData";
  AuditedCall const call{OPERATION, record.subject.in(), record.authority.in()};
  PeerPlace place = takeIteratorPlace(OPERATION, call);
  iterator = CollectionDataIterator::_nil();
  std::string const subject(record.subject);
  std::string const authority(record.authority);
  // The operation names exactly one discovery: neither an empty name nor a
  // pattern does.
  if (DiscoveryRepository::stringContainsWildcard(subject) ||
      DiscoveryRepository::stringContainsWildcard(authority) ||
      !areUsableNames(subject.c_str(), authority.c_str()))
    return DS_LOGIC_ERROR;

  DiscoveryRepository& repository = getDiscoveryRepository();
  AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::DiscoveryIterator> const found(
      repository.isGenericDSOnMaster()
          ? repository.queryDiscoveries(record.queryType, subject, authority, record.authType)
          : repository.findPullExplorer(record.queryType, repository.getPullExplorers(), subject,
                                        authority));
  if (!found)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Null iterator returned. Fount no discoveries for subject "
                << subject << " & authority " << authority);
    return DS_NONE_FOUND;
  }
  AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery> discovery(found->getNext());
  if (!discovery)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Fount no discoveries for subject " << subject << " & authority " << authority);
    return DS_NONE_FOUND;
  }
  if (AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>(found->getNext()))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Fount too many matching discoveries for subject " << subject << " & authority "
                                                               << authority);
    return DS_LOGIC_ERROR;
  }
  return serve(discovery, filter, std::move(place), call, iterator);
}

DiscoveryStatus DiscoveryService_i::serve(
    AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>& discovery,
    char const* filter, PeerPlace place, AuditedCall const& call,
    CollectionDataIterator_out iterator)
{
  constexpr char const* OPERATION = "DiscoveryService_i::getCollectionData";
  try
  {
    CollectionDataIterator_i* const servant = new CollectionDataIterator_i(discovery);
    PortableServer::ServantBase_var const localReference(servant);
    servant->setPlace(std::move(place));
    if (!servant->open(filter))
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Error encountered trying to open collection iterator");
      return DS_OPEN_FAILED;
    }
    iterator = publish(*servant, *getDiscoveryRepository().getOrb(), call);
    return DS_SUCCESS;
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Caught CORBA exception creating object reference to collection data iterator");
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, corbaExceptionText(exception));
    iterator = CollectionDataIterator::_nil();
    return DS_COM_ERROR;
  }
}

RemoteWriter_i* DiscoveryService_i::newRemoteWriter(Discovery const& record) const
{
  return new RemoteWriter_i(record);
}

DiscoveryResult DiscoveryService_i::putCollection(Discovery const& record, RemoteWriter_out writer)
{
  constexpr char const* OPERATION = "DiscoveryService_i::putCollection";
  AuditedCall const call{OPERATION, record.subject.in(), record.authority.in()};
  writer = RemoteWriter::_nil();
  DiscoveryResult result{DS_OPEN_FAILED, 0};
  if (!areKeepableNames(record.subject.in(), record.authority.in()))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Refused a discovery of " << callerName()
                                      << ": its subject or authority is empty or too long");
    auditRefusal(call, "its subject or authority is empty or too long");
    return result;
  }
  if (!isUsablePattern(record.sourceHost.in()) || !isUsablePattern(record.sourceServiceName.in()))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Refused a discovery of " << callerName()
                                      << ": the name of its source host or service is too long");
    auditRefusal(call, "the name of its source host or service is too long");
    return result;
  }
  requireOwnName(OPERATION, call, record.sourceHost);
  auto const place = getOpenWriters().reserve(currentPeer(), call);
  if (!place)
    return result;
  requireDayBytes(OPERATION, call,
                  DayBytes::OF_FILES + call.subject.size() + call.authority.size());

  CORBA::Object_var reference;
  try
  {
    RemoteWriter_i* const servant = newRemoteWriter(record);
    PortableServer::ServantBase_var const localReference(servant);
    result = servant->open();
    if (isSuccess(result))
    {
      reference = getDiscoveryRepository().getOrb()->activateObject(servant);
      servant->setReference(reference);
      if (place->take(*servant, reference))
        writer = RemoteWriter::_narrow(reference);
      else
      {
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
                "Refused a discovery of " << callerName() << ": the service is about to stop");
        auditRefusal(call, "the service is about to stop");
        getDiscoveryRepository().getOrb()->destroyObjectRef(reference);
        result.discStatus = DS_OPEN_FAILED;
      }
    }
    else
      auditCall(call, resultText(result.discStatus));
  }
  catch (CORBA::Exception const& exception)
  {
    auditCall(call, resultText(DS_COM_ERROR));
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Caught CORBA exception creating object reference to remote writer");
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, corbaExceptionText(exception));
    writer = RemoteWriter::_nil();
    // Nobody will close what nobody was handed.
    getDiscoveryRepository().getOrb()->destroyObjectRef(reference);
    result.discStatus = DS_COM_ERROR;
  }
  return result;
}

void DiscoveryService_i::registerExplorer(char const* sourceHost, char const* sourceServiceName,
                                          char const* subject, char const* authority,
                                          AuthorityType authType, CORBA::Short priority)
{
  constexpr char const* OPERATION = "DiscoveryService_i::registerExplorer";
  AuditedCall const call{"registerExplorer", subject, authority};
  if (!isUsablePlace(sourceHost) || !isUsablePlace(sourceServiceName) ||
      !areKeepableNames(subject, authority))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Refused the registration of an explorer by " << callerName()
                                                          << ": a name is empty or too long");
    auditRefusal(call, "a name is empty or too long");
    // The caller is not told: an exception would keep it from ever starting its
    // push explorers.
    return;
  }
  requireOwnName(OPERATION, call, sourceHost);
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "Registered explorer: " << sourceHost << " " << sourceServiceName << " " << subject << " "
                                  << authority << " " << priority);
  AutoDereference<RemoteExplorerPull> const explorer(
      new RemoteExplorerPull(sourceServiceName, sourceHost, subject, authority, authType));
  explorer->setOpener(takeRegistrationPlace());
  // The wire has 16 bits; a negative priority becomes a very high one.
  auto const wide = static_cast<unsigned>(static_cast<int>(priority));
  DiscoveryRepository& repository = getDiscoveryRepository();
  if (!repository.awaitAnnouncements())
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "The start takes long: the registration of "
                << subject << " " << authority << " may yield to an older one that is restored");
  auto const registration = repository.registerExplorer(new Subject(subject), explorer.get(), wide,
                                                        new Authority(authority, authType), false);
  if (registration.result == Registration::TOO_MANY)
    return auditRefusal(call, "too many are registered already");
  if (!registration.standing)
  {
    auditCall(call, std::string("registered, of ") + sourceServiceName + " on " + sourceHost);
    return;
  }
  std::string const reason = describeStanding(registration);
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "Refused the registration of " << subject << " " << authority << ", priority " << wide
                                         << ", by " << callerName() << ": " << reason);
  auditRefusal(call, reason);
}

CORBA::Boolean DiscoveryService_i::terminate()
{
  constexpr char const* OPERATION = "DiscoveryService_i::terminate";
  OrbService* const service = OrbService::Instance();
  if (service == nullptr)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to retrieve the OrbService instance");
    return false;
  }
  auditCall({"terminate"}, "stopping");
  service->stopByEvent(false);
  return true;
}

void DiscoveryService_i::restartLocalPushTimer()
{
  auditCall({"restartLocalPushTimer"}, "done");
  getDiscoveryRepository().triggerPushTimer();
}

CORBA::Boolean DiscoveryService_i::restartAllPushTimers()
{
  bool const restarted = getDiscoveryRepository().isGenericDSOnMaster() &&
                         getDiscoveriesThreadMgr().restartAllPushTimers();
  auditCall({"restartAllPushTimers"}, restarted ? "done" : "not done");
  return restarted;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

PortableServer::ServantBase* newDiscoveryServant() { return new Remote::DiscoveryService_i; }

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
