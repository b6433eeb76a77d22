// Registry, roles and the creation of discoveries.

#include "discovery/DiscoveryRepository.h"

#include "discovery/DiscDB.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerCall.h"
#include "discovery/DiscoveryRepositoryTimers.h"
#include "discovery/ExplorerLoader.h"
#include "discovery/ExplorerRuns.h"
#include "discovery/PullExplorerCache.h"
#include "discovery/RegistrationWatch.h"
#include "discovery/RemoteDB.h"
#include "ozf/config/HostRole.h"
#include "ozf/plugin/EngineContext.h"

#include <ace/Singleton.h>

#include <optional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscoveryRepository";
constexpr char REGISTER[] = "DiscoveryRepository::registerExplorer";

// What is registered: without an authority under the local host's.
AutoDereference<ExplorerWrapper> newEntry(DiscoveryRepository const& repository,
                                          Subject const* subject, Explorer const* explorer,
                                          unsigned priority, Authority const* authority)
{
  OZF_ASSERT(subject != nullptr, "NULL != subject", SOURCE, REGISTER);
  OZF_ASSERT(explorer != nullptr, "NULL != explorer", SOURCE, REGISTER);
  if (authority == nullptr)
    authority = repository.getLocalAuthority();
  OZF_ASSERT(authority != nullptr, "NULL != authority", SOURCE, REGISTER);
  return AutoDereference<ExplorerWrapper>(
      new ExplorerWrapper(explorer, priority, subject, authority));
}

// What the explorers of other hosts do is those hosts' to tell.
void declareRuns(ExplorerWrapper& entry, ExplorerRecord::Kind kind)
{
  if (dynamic_cast<RemoteExplorerPull const*>(entry.getExplorer()) == nullptr)
    entry.setRecord(getExplorerRuns().declare(
        {kind, entry.getAuthority()->getName().str(), entry.getAuthority()->getType(),
         entry.getSubject()->getName().str(), entry.getPriority(), RegistrationWatch::origin(),
         entry.getExplorer()}));
}

} // namespace

// ---- construction ----

DiscoveryRepository::DiscoveryRepository()
    : m_ownPeers(std::make_unique<Peers>()), m_peers(*m_ownPeers)
{
}

DiscoveryRepository::DiscoveryRepository(Peers& peers) : m_peers(peers) {}

DiscoveryRepository::~DiscoveryRepository()
{
  // The process ends. What was not taken down by now, as after a fini that
  // could not destroy its POA, never will be, and must not hold the end up.
  if (!m_barrier->isOpen())
    static_cast<void>(m_barrier.release());
}

namespace
{

class ProcessRepository : public DiscoveryRepository
{
public:
  ProcessRepository() : DiscoveryRepository(getPeers()) {}

  static ProcessRepository& instance()
  {
    return *ACE_Singleton<ProcessRepository, ACE_Recursive_Thread_Mutex>::instance();
  }

  // What the loader works on; with the lock, which is the repository's own.
  static ExplorerLoader::Target loaderTarget() { return {instance(), instance()}; }
};

// Before main, so that the loader knows it whoever uses it first.
[[maybe_unused]] bool const LOADER_IS_TOLD =
    ExplorerLoader::setTarget(&ProcessRepository::loaderTarget);

} // namespace

DiscoveryRepository& getDiscoveryRepository() { return ProcessRepository::instance(); }

// ---- roles ----

bool DiscoveryRepository::isMaster() const { return getRemoteDiscoveryDatabase().isMaster(); }

bool DiscoveryRepository::isGenericDS() const { return getDSType() == DST_GENERIC; }

bool DiscoveryRepository::isGenericDSOnMaster() const { return isMaster() && isGenericDS(); }

unsigned DiscoveryRepository::getDSType() const
{
  OZF_ASSERT(m_discoveryFramework, "0 != m_discoveryFramework", SOURCE,
             "DiscoveryRepository::getDSType");
  return m_discoveryFramework->getType();
}

Orb* DiscoveryRepository::getOrb() const { return m_peers.getOrb(); }

Orb* DiscoveryRepository::findOrb() const noexcept { return m_peers.findOrb(); }

std::string DiscoveryRepository::getOrbServiceName() const { return m_peers.getOrbServiceName(); }

void DiscoveryRepository::getMasterServerName(OzfHostname& master) const
{
  m_peers.getMasterServerName(master);
}

Remote::DiscoveryService_ptr
DiscoveryRepository::connectToRemoteDiscoveryService(OzfHostname const& host,
                                                     char const* serviceName) const
{
  return m_peers.connect(host, serviceName);
}

std::string DiscoveryRepository::getDSName() const
{
  OZF_ASSERT(m_discoveryFramework, "0 != m_discoveryFramework", SOURCE,
             "DiscoveryRepository::getDSName");
  return m_discoveryFramework->getName();
}

void DiscoveryRepository::setDiscoveryFramework(DiscoveryFramework const* framework)
{
  // A process that reads discoveries may come up and go down again and again:
  // each framework shuts the repository down once.
  if (framework != nullptr && framework != m_discoveryFramework.get())
    m_peers.setShuttingDown(false);
  m_discoveryFramework =
      AutoDereference<DiscoveryFramework>::retain(const_cast<DiscoveryFramework*>(framework));
  if (framework != nullptr)
    m_peers.setOrb(framework->findOrb());
  else
    m_peers.unsetOrb();
}

Authority* DiscoveryRepository::getLocalAuthority() const
{
  OzfHostname local;
  local.setLocal();
  return new Authority(local.toString().str(), AT_EXTSRC);
}

bool DiscoveryRepository::stringContainsWildcard(std::string const& text)
{
  return text.find('*') != std::string::npos;
}

// ---- the registry ----

DiscoveryRepository::Snapshot DiscoveryRepository::getPushExplorers() const
{
  return m_registrations.push();
}

DiscoveryRepository::Snapshot DiscoveryRepository::getPullExplorers() const
{
  return m_registrations.pull();
}

void DiscoveryRepository::registerExplorer(Subject const* subject, ExplorerPush const* explorer,
                                           unsigned const& priority, Authority const* authority)
{
  AutoDereference<ExplorerWrapper> const entry =
      newEntry(*this, subject, explorer, priority, authority);
  declareRuns(*entry, ExplorerRecord::PUSH);
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE, REGISTER);
  m_registrations.addPush(entry);
}

Registration DiscoveryRepository::registerExplorer(Subject const* subject,
                                                   ExplorerPull const* explorer,
                                                   unsigned const& priority,
                                                   Authority const* authority, bool fromCache)
{
  AutoDereference<ExplorerWrapper> entry = newEntry(*this, subject, explorer, priority, authority);
  declareRuns(*entry, ExplorerRecord::PULL);
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE, REGISTER);
  if (fromCache)
    entry->setAnnounced();
  Registration registration = m_registrations.addPull(entry, fromCache);
  if (registration.result == Registration::TAKEN && isGenericDSOnMaster() && !fromCache)
    persistToDisk(entry);
  return registration;
}

// ---- the registrations of other hosts while the service starts ----

DiscoveryRepository::AnnouncementHold::AnnouncementHold(DiscoveryRepository& repository)
    : m_repository(repository)
{
  std::lock_guard const guard(m_repository.m_holdMutex);
  ++m_repository.m_holds;
}

DiscoveryRepository::AnnouncementHold::~AnnouncementHold()
{
  {
    std::lock_guard const guard(m_repository.m_holdMutex);
    --m_repository.m_holds;
  }
  m_repository.m_holdOver.notify_all();
}

bool DiscoveryRepository::awaitAnnouncements(std::chrono::milliseconds limit)
{
  std::unique_lock lock(m_holdMutex);
  return m_holdOver.wait_for(lock, limit, [this] { return m_holds == 0; });
}

void DiscoveryRepository::persistToDisk(AutoDereference<ExplorerWrapper>& entry)
{
  OZF_ASSERT(isGenericDSOnMaster(), "isGenericDSOnMaster()", SOURCE,
             "DiscoveryRepository::persistToDisk");

  // Only registrations of other hosts need the cache: an explorer of this host
  // registers itself again whenever the service starts.
  auto const* const remote = dynamic_cast<RemoteExplorerPull const*>(entry->getExplorer());
  if (remote == nullptr)
    return;

  if (storePullRegistration(*this, m_cachedRegistrations, *remote, entry->getPriority(),
                            entry->getSubject()->getName().str(),
                            entry->getAuthority()->getName().str()))
    entry->setAnnounced();
}

void DiscoveryRepository::newDiscovery(AutoDereference<Discovery>& discovery, DiscoveryQuery query,
                                       Subject const& subject, Authority const& authority,
                                       CollectionAttributes const& attributes) const
{
  discovery.reset();
  if (isGenericDSOnMaster())
    discovery.reset(getDiscoveryDBDatabase()->newDiscovery(query));
  else
    discovery.reset(getRemoteDiscoveryDatabase().newDiscovery(query));
  OZF_ASSERT(discovery, "*discovery", SOURCE, "DiscoveryRepository::newDiscovery");

  discovery->setSubject(new Subject(subject));
  discovery->setAuthority(new Authority(authority));
  discovery->setAttributes(new CollectionAttributes(attributes));
}

// ---- plug-ins ----

void DiscoveryRepository::limitExplorerPlugins(std::list<std::string> const* names)
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "DiscoveryRepository::limitExplorerPlugins");
  m_pluginLimit.clear();
  if (names != nullptr)
    m_pluginLimit = *names;
}

std::list<std::string> DiscoveryRepository::getExplorerPluginLimit() const
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "DiscoveryRepository::getExplorerPluginLimit");
  return m_pluginLimit;
}

void DiscoveryRepository::loadExplorers()
{
  EngineContext const context;
  {
    // The repository's lock first: another thread that asks for a parser takes
    // it before the loader's too.
    LockableGuard lockableGuard(*this);
    OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
               "DiscoveryRepository::loadExplorers");
    getEngineSingleton<ExplorerLoader>(context)->loadExplorers();
  }
  startExplorers(*getPushExplorers(), context);
  startExplorers(*getPullExplorers(), context);
  if (isGenericDSOnMaster())
  {
    loadPullExplorerCache();
    startPushTimer();
  }
  else
    startRegisterTimer();
}

void DiscoveryRepository::loadExplorerParsers()
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "DiscoveryRepository::loadExplorerParsers");
  if (m_parsersLoaded)
    return;
  EngineContext const context;
  getEngineSingleton<ExplorerLoader>(context)->loadExplorerParsers(&m_pluginLimit);
  m_parsersLoaded = true;
}

void DiscoveryRepository::registerExplorerParser(OzfString const& name,
                                                 ExplorerDataParser const* parser)
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "DiscoveryRepository::registerExplorerParser");
  m_parsers.try_emplace(
      name, AutoDereference<ExplorerDataParser>::retain(const_cast<ExplorerDataParser*>(parser)));
}

AutoDereference<ExplorerDataParser>
DiscoveryRepository::getRegisteredExplorerParser(OzfString const& name)
{
  loadExplorerParsers();
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "DiscoveryRepository::getRegisteredExplorerParser");
  auto const found = m_parsers.find(name);
  return found == m_parsers.end() ? AutoDereference<ExplorerDataParser>() : found->second;
}

// ---- starting and stopping ----

// A set of its own: what an explorer registers when it is started does not change it.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void DiscoveryRepository::startExplorers(ExplorerSet explorers, EngineContext const& context)
{
  for (auto const& entry : explorers)
  {
    std::optional<CrashMark> mark;
    if (std::shared_ptr<ExplorerRecord> const& record = entry->getRecord())
    {
      CrashSuspect const suspect = record->startSuspect();
      if (getExplorerCrashes().isLeftOut(suspect))
      {
        record->setNotStarted();
        continue;
      }
      mark.emplace(suspect);
    }
    callExplorer(*entry->getExplorer(), SOURCE, "DiscoveryRepository::startExplorers",
                 [&]
                 {
                   entry->getExplorer()->startExploration(context, *entry->getAuthority(),
                                                          *entry->getSubject(), entry->getContext(),
                                                          this);
                 });
  }
}

void DiscoveryRepository::stopExplorers(ExplorerSet const& explorers)
{
  for (auto const& entry : explorers)
  {
    auto const isHeldUp = [&entry]
    { return entry->getRecord() && getExplorerRuns().isLate(*entry->getRecord()); };
    if (isHeldUp())
    {
      entry->setStopDue();
      // It may have returned before it could see that.
      if (isHeldUp() || !entry->isStopDue())
        continue;
    }
    stopExplorer(*entry);
  }
}

void DiscoveryRepository::stopExplorer(ExplorerWrapper& entry)
{
  callExplorer(*entry.getExplorer(), SOURCE, "DiscoveryRepository::stopExplorers",
               [&]
               {
                 entry.getExplorer()->stopExploration(*entry.getAuthority(), *entry.getSubject(),
                                                      entry.getContext());
               });
}

void DiscoveryRepository::setRefreshWait(std::function<void()> wait)
{
  std::lock_guard guard(m_timersMutex);
  m_waitForRefresh = std::move(wait);
}

void DiscoveryRepository::shutdown()
{
  constexpr char const* OPERATION = "DiscoveryRepository::shutdown";
  OZF_ASSERT(!isShuttingDown(), "!m_shuttingDown", SOURCE, OPERATION);
  m_peers.setShuttingDown(true);

  std::function<void()> waitForRefresh;
  {
    std::lock_guard guard(m_timersMutex);
    waitForRefresh = m_waitForRefresh;
  }
  if (waitForRefresh)
    waitForRefresh();

  {
    OZFBlockUntil timersGone;
    AutoDereference<ExplorerPushTimer> pushTimer;
    AutoDereference<ExplorerRegisterTimer> registerTimer;
    {
      // Under the mutex, so that no firing puts a timer back after this.
      std::lock_guard guard(m_timersMutex);
      pushTimer = std::move(m_pushTimer);
      registerTimer = std::move(m_registerTimer);
      if (pushTimer)
        timersGone.add(*pushTimer);
    }
    if (pushTimer)
    {
      pushTimer->shutdown();
      pushTimer.reset();
    }
    if (registerTimer)
    {
      timersGone.add(*registerTimer);
      registerTimer->shutdown();
      registerTimer.reset();
    }
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Waiting if any explorer timer is running");
    timersGone.wait();
  }

  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Informing explorers to stop exploration");
  stopExplorers(*getPushExplorers());
  stopExplorers(*getPullExplorers());
  m_registrations.clear();
  m_cachedRegistrations.clear();
  for (auto const& left : getExplorerRuns().unfinished())
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Stopping without explorer " << left.record->name() << ", which has not returned for "
                                         << left.since.count() / 1000 << " seconds");
}

void DiscoveryRepository::fini()
{
  OZF_ASSERT(isShuttingDown(), "m_shuttingDown", SOURCE, "DiscoveryRepository::fini");
  m_barrier->wait();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
