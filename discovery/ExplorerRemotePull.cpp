#include "discovery/ExplorerRemotePull.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryLoopGuard.h"
#include "discovery/Peers.h"
#include "discovery/PullPace.h"
#include "discovery/RemoteDB.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/CallRights.h"
#include "ozf/orb/Peer.h"
#include "ozf/orb/SelfConnection.h"

#include <array>
#include <atomic>
#include <optional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "Explorer";
constexpr char OPERATION[] = "RemotePullExplorer::collectionRequested";
constexpr std::size_t BUFFER_SIZE = 1024;

// Well below the time-out of the call for which a request waits: what comes
// afterwards has to fit in as well.
std::atomic<std::chrono::milliseconds::rep> patienceMilliseconds{10'000};

std::chrono::milliseconds patienceForTurn()
{
  return std::chrono::milliseconds(patienceMilliseconds);
}

std::chrono::milliseconds patienceForThread() { return patienceForTurn() / 5; }

CallPlaces& servedRequests()
{
  static CallPlaces places(RemoteExplorerPull::MOST_SERVED, RemoteExplorerPull::MOST_SERVED / 2);
  return places;
}

// Calls of this process to itself come from a peer, too, when they go through a
// socket.
bool callsItself(Peer const* peer)
{
  return peer != nullptr && isConnectedWithItself(peer->address);
}

} // namespace

RemoteExplorerPull::RemoteExplorerPull(OzfString const& serviceName, OzfString const& host,
                                       OzfString const& registrationName1,
                                       OzfString const& registrationName2, AuthorityType type)
    : m_serviceName(serviceName),
      m_registrationName1(registrationName1),
      m_registrationName2(registrationName2),
      m_authorityType(type)
{
  m_host.setHostname(host.str(), -1);
}

char const* RemoteExplorerPull::getExplorerName() const { return "RemotePullExplorer"; }

bool RemoteExplorerPull::collectionRequested(DiscoveryQuery query, Authority const& authority,
                                             Subject const& subject,
                                             AutoDereference<OZFRefCounted>&,
                                             char const* filterText, CollectionData* target)
{
  TraceScope const trace(getOzfLogger(), OPERATION);
  // A chain that leads through several registrations meets this host again on
  // the same thread: the ORB makes calls to its own process there.
  static thread_local LoopCounter nested;
  LoopGuard const depth(nested);
  if (depth.exceeded())
  {
    logConnectingBack();
    return false;
  }
  Peer const* const peer = currentPeer();
  AuditedCall const call{"getCollectionData", subject.getName().c_str(),
                         authority.getName().c_str()};
  std::optional<CallPlace> served;
  if (peer != nullptr && depth.outermost())
  {
    served.emplace(servedRequests(), patienceForThread());
    if (!served->taken())
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Refused a request of " << peer->address << " for data of " << m_host.exportNarrow()
                                      << ": " << MOST_SERVED
                                      << " requests wait for other hosts already");
      auditRefusal(peer, call, "too many requests wait for other hosts already");
      return false;
    }
  }
  // Whoever waits here in a circle waits for itself.
  bool const circle = m_requests.full() && (!depth.outermost() || callsItself(peer));
  CallPlace const turn(m_requests, circle ? std::chrono::milliseconds::zero() : patienceForTurn());
  if (!turn.taken())
  {
    if (circle)
    {
      logConnectingBack();
      return false;
    }
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Refused a request of " << (peer == nullptr ? "this service" : peer->address)
                                    << " for data of " << m_host.exportNarrow() << ": "
                                    << MOST_REQUESTS
                                    << " that it has not answered are in progress");
    if (peer != nullptr)
      auditRefusal(peer, call, "too many requests to that host are in progress already");
    return false;
  }
  try
  {
    return copyCollection(query, authority, subject, filterText, *target);
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(
        getOzfLogger(), 1, SOURCE, OPERATION,
        "Caught CORBA Exception while querying for discoveries: " << corbaExceptionText(exception));
  }
  return false;
}

void RemoteExplorerPull::setPatience(std::chrono::milliseconds patience) noexcept
{
  patienceMilliseconds = patience.count();
}

void RemoteExplorerPull::logConnectingBack() const
{
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "Hostname detected as remote and/or master, but appears to be connecting back to "
          "self, RemoteHost: "
              << m_host.exportNarrow());
}

bool RemoteExplorerPull::copyCollection(DiscoveryQuery query, Authority const& authority,
                                        Subject const& subject, char const* filterText,
                                        CollectionData& target) const
{
  PacedThread const paced;
  // A host lists what the master knows before it answers.
  AskedHost const asked(m_host.exportNarrow());
  Remote::DiscoveryService_var const service = getPeers().connect(m_host, m_serviceName.c_str());
  if (CORBA::is_nil(service.in()))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to connect to discovery service");
    return false;
  }

  Remote::DiscoveryIterator_var const remote = service->queryDiscoveries(
      query, m_authorityType, subject.getName().c_str(), authority.getName().c_str());
  AutoDereference<RemoteDiscoveryIterator> const iterator(new RemoteDiscoveryIterator(
      m_authorityType, subject.getName().str(), authority.getName().str(), remote.in()));
  if (!iterator->failure().empty())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            (iterator->raised() ? "Caught CORBA Exception while querying for discoveries: "
                                : "Failed to fetch discoveries: ")
                << iterator->failure());
    return false;
  }
  AutoDereference<Discovery> const found(iterator->getNext());
  if (!found)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "No records found!");
    return false;
  }
  if (AutoDereference<Discovery>(iterator->getNext()))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Too many records found");
    return false;
  }

  // Both messages name the other side; readers of logs know them so.
  CollectionData& source = *found->getCollectionData();
  if (source.open(OM_READ, filterText) == 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to target open collection data");
    return false;
  }
  if (target.open(OM_UPDATE, "") == 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to source open colection data");
    return false;
  }
  // The second opening takes the filter off: what is copied is everything.
  if (source.open(OM_READ, "") == 0 || target.open(OM_UPDATE, "") == 0)
    return false;

  std::array<char, BUFFER_SIZE> buffer;
  long count = 0;
  while ((count = source.readCollection(buffer.size(), buffer.data())) > 0)
    target.writeCollection(static_cast<unsigned long>(count), buffer.data());
  return count == 0;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
