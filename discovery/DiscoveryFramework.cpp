#include "discovery/DiscoveryFramework.h"

#include "discovery/DiscDB.h"
#include "discovery/DiscDBLock.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerRuns.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/DiscoveryServant.h"
#include "discovery/MetadataCache.h"
#include "discovery/OpenWriters.h"
#include "discovery/OperationNeeds.h"
#include "discovery/Peers.h"
#include "ozf/config/HostRole.h"
#include "ozf/orb/Orb.h"
#include "ozf/plugin/CurrentException.h"

#include <ace/ACE.h>
#include <ace/Init_ACE.h>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscoveryFramework";

// Takes one step of the way down; false, with a line, when the ORB objects.
template <class Step>
bool attempt(char const* operation, Step&& step)
{
  try
  {
    step();
    return true;
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(
        getOzfLogger(), 1, SOURCE, operation,
        "Caught corba exception shutting down, Corba exception: " << corbaExceptionText(exception));
    return false;
  }
}

} // namespace

DiscoveryFramework::DiscoveryFramework(char const* name, DiscoveryServiceType type, Orb* orb,
                                       bool ownAce)
    : m_ownAce(ownAce), m_name(name), m_type(type), m_orb(orb)
{
}

DiscoveryFramework::~DiscoveryFramework() = default;

Orb* DiscoveryFramework::getOrb() const
{
  OZF_ASSERT(m_orb != nullptr, "0 != m_orb", SOURCE, "DiscoveryFramework::getOrb");
  return m_orb;
}

std::string DiscoveryFramework::getOrbServiceName() const { return getOrb()->name(); }

void DiscoveryFramework::init(std::list<std::string> const* explorers)
{
  if (m_ownAce)
    ACE::init();

  DiscoveryRepository& repository = getDiscoveryRepository();
  repository.setDiscoveryFramework(this);
  repository.limitExplorerPlugins(explorers);
  if (m_type != DST_NONE)
  {
    OZF_ASSERT(getOrb()->isEvictorEnabled(), "m_orb->isEvictorEnabled()", SOURCE,
               "DiscoveryFramework::init");
    // A service that is up already only counts the call.
    if (!m_served)
      activate();
  }
  ++m_init;
}

void DiscoveryFramework::activate()
{
  m_served = std::make_unique<Served>();
  // Other hosts may call as soon as the service is advertised, which is before
  // the registrations of the cache are restored.
  DiscoveryRepository::AnnouncementHold const hold(getDiscoveryRepository());
  // Nobody will call fini for an init that failed.
  auto const undo = [this]
  {
    m_orb->setIdleTask({});
    m_orb->destroyObjectRef(m_served->reference);
    m_orb->destroyObjectRef(m_served->ownReference);
    m_served.reset();
    if (getDiscoveryDBDatabase()->isInitialized())
      getDiscoveryDBDatabase()->keepIndex(false);
  };
  try
  {
    setCallNeeds(needOf);
    CORBA::Object_var const root = m_orb->resolveInitialReference("RootPOA");
    m_served->rootPOA = PortableServer::POA::_narrow(root);
    Remote::getOpenWriters().open();
    m_served->servant = newDiscoveryServant();
    m_served->reference = m_orb->activateObject(m_served->servant.in());
    getDiscoveryDBDatabase()->init(m_name);
    configureMetadataCache();
    getDiscoveryDBDatabase()->keepIndex(true);
    m_orb->setIdleTask(
        []
        {
          Remote::getOpenWriters().dropIdle();
          getDiscoveryRepository().dropForgotten();
        });
    m_orb->advertiseObject(DISCOVERY_SERVICE, m_served->reference);
    m_served->ownServant = newOwnCollectionsServant();
    m_served->ownReference = m_orb->activateObject(m_served->ownServant.in());
    m_orb->advertiseObject(OWN_COLLECTIONS, m_served->ownReference);
    getDiscoveryRepository().loadExplorers();
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoveryFramework::init",
            "Caught corba exception activating DiscoveryService servant, Corba exception: "
                << corbaExceptionText(exception));
    undo();
    throw;
  }
  catch (...)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoveryFramework::init",
            "Unable to activate the DiscoveryService servant: " << currentExceptionText());
    undo();
    throw;
  }
}

void DiscoveryFramework::shutdown()
{
  OZF_ASSERT(!m_shutdown, "!m_shutdown", SOURCE, "DiscoveryFramework::shutdown");
  m_shutdown = true;
  // Before anything is waited for: a call in progress may want a lock.
  if (m_served)
    LockWait::endAll();

  // A step that fails must not keep the next from being taken.
  constexpr char const* OPERATION = "DiscoveryFramework::shutdown";
  if (m_served)
    attempt(OPERATION,
            [this]
            {
              m_orb->destroyObjectRef(m_served->reference);
              m_served->reference = CORBA::Object::_nil();
            });
  if (m_served)
    attempt(OPERATION,
            [this]
            {
              m_orb->destroyObjectRef(m_served->ownReference);
              m_served->ownReference = CORBA::Object::_nil();
            });
  if (m_served)
    m_orb->setIdleTask({});
  if (m_orb != nullptr && m_orb->isEvictorEnabled())
    attempt(OPERATION, [this] { m_orb->getEvictor().shutdown(); });
  if (m_served)
    attempt(OPERATION,
            [this]
            {
              // Waits for the calls in progress on the objects of this POA: left
              // to itself the ORB would finish this on a thread of its own, which
              // must not meet the destruction of the POA. A call that a late
              // explorer holds up is not waited for; then the POA stays.
              PortableServer::POAManager_var const manager = m_served->rootPOA->the_POAManager();
              m_leftCalls = !getExplorerRuns().takeStep(
                  [manager]
                  { attempt(OPERATION, [&manager] { manager->deactivate(true, true); }); });
              Remote::getOpenWriters().close();
            });
  getDiscoveryRepository().shutdown();
}

void DiscoveryFramework::fini()
{
  constexpr char const* OPERATION = "DiscoveryFramework::fini";
  OZF_ASSERT(m_shutdown, "m_shutdown", SOURCE, OPERATION);
  OZF_ASSERT(m_init != 0, "m_init", SOURCE, OPERATION);

  // What remote callers hold goes with the POA; if it stays there is no point
  // in waiting for it.
  bool released = true;
  if (m_served)
  {
    // This waits for calls in progress also where the manager did not.
    auto const done = std::make_shared<bool>(false);
    m_leftCalls = m_leftCalls ||
                  !getExplorerRuns().takeStep(
                      [done, root = m_served->rootPOA]
                      { *done = attempt(OPERATION, [&root] { root->destroy(false, true); }); });
    // What a late collection is made for belongs to the repository's barrier.
    m_leftCalls = m_leftCalls || !getExplorerRuns().unfinished().empty();
    released = !m_leftCalls && *done;
    m_served.reset();
    getDiscoveryDBDatabase()->keepIndex(false);
  }
  if (--m_init > 0)
    return;
  if (m_type != DST_NONE && released)
    getDiscoveryRepository().fini();
  // The process may go on and use the database.
  LockWait::allow();
  if (m_ownAce)
    ACE::fini();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
