// Registry, roles and the creation of discoveries.

#include "discovery/DiscoveryRepository.h"

#include "discovery/DiscDB.h"
#include "discovery/DiscDBLock.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerCall.h"
#include "discovery/DiscoveryRepositoryRefresh.h"
#include "discovery/DiscoveryRepositoryTimers.h"
#include "discovery/ExplorerLoader.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/RemoteDB.h"
#include "ozf/config/HostRole.h"
#include "ozf/plugin/EngineContext.h"

#include <ace/Singleton.h>

#include <algorithm>
#include <sstream>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscoveryRepository";

// What this process registers for itself calls no other host.
bool isOfAnotherHost(ExplorerWrapper const& entry)
{
  return dynamic_cast<RemoteExplorerPull const*>(entry.getExplorer()) != nullptr;
}

} // namespace

// ---- the sets ----

DiscoveryRepository::Snapshot DiscoveryRepository::Registrations::snapshot() const
{
  std::lock_guard guard(m_mutex);
  if (!m_snapshot)
    m_snapshot = std::make_shared<ExplorerSnapshot const>(m_entries);
  return m_snapshot;
}

template <class Accept>
AutoDereference<ExplorerWrapper>
DiscoveryRepository::Registrations::findIf(AutoDereference<ExplorerWrapper> const& entry,
                                           Accept accept) const
{
  ltdExplorerWrapper const before;
  std::lock_guard guard(m_mutex);
  auto const [first, last] = m_bySubject.equal_range(entry->getSubject());
  for (auto candidate = first; candidate != last; ++candidate)
    if (!before(*candidate->second, entry) && !before(entry, *candidate->second) &&
        accept(**candidate->second))
      return *candidate->second;
  return {};
}

AutoDereference<ExplorerWrapper>
DiscoveryRepository::Registrations::find(AutoDereference<ExplorerWrapper> const& entry) const
{
  return findIf(entry, [](ExplorerWrapper const&) { return true; });
}

bool DiscoveryRepository::Registrations::insert(AutoDereference<ExplorerWrapper> const& entry)
{
  Snapshot old;
  std::lock_guard guard(m_mutex);
  auto const [place, inserted] = m_entries.insert(entry);
  if (!inserted)
    return false;
  m_bySubject.emplace(entry->getSubject(), place);
  old.swap(m_snapshot);
  return true;
}

std::size_t DiscoveryRepository::Registrations::size() const
{
  std::lock_guard guard(m_mutex);
  return m_entries.size();
}

void DiscoveryRepository::Registrations::erase(AutoDereference<ExplorerWrapper> const& entry)
{
  // Declared first, so that plug-in destructors run after the mutex is free.
  Snapshot old;
  AutoDereference<ExplorerWrapper> erased;
  std::lock_guard guard(m_mutex);
  auto const [first, last] = m_bySubject.equal_range(entry->getSubject());
  auto const found =
      std::find_if(first, last, [&](auto const& other) { return *other.second == entry; });
  if (found == last)
    return;
  erased = *found->second;
  m_entries.erase(found->second);
  m_bySubject.erase(found);
  old.swap(m_snapshot);
}

void DiscoveryRepository::Registrations::clear()
{
  Snapshot old;
  ExplorerSet entries;
  std::lock_guard guard(m_mutex);
  m_bySubject.clear();
  entries.swap(m_entries);
  old.swap(m_snapshot);
}

// ---- construction ----

DiscoveryRepository::DiscoveryRepository() = default;

DiscoveryRepository::~DiscoveryRepository()
{
  // The process ends. What was not taken down by now, as after a fini that
  // could not destroy its POA, never will be, and must not hold the end up.
  if (!m_barrier->isOpen())
    static_cast<void>(m_barrier.release());
}

DiscoveryRepository& getDiscoveryRepository()
{
  return *ACE_Singleton<DiscoveryRepository, ACE_Recursive_Thread_Mutex>::instance();
}

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

Orb* DiscoveryRepository::getOrb() const
{
  OZF_ASSERT(m_discoveryFramework, "0 != m_discoveryFramework", SOURCE,
             "DiscoveryRepository::getOrb");
  return m_discoveryFramework->getOrb();
}

Orb* DiscoveryRepository::findOrb() const noexcept
{
  return m_discoveryFramework ? m_discoveryFramework->findOrb() : nullptr;
}

std::string DiscoveryRepository::getOrbServiceName() const
{
  OZF_ASSERT(m_discoveryFramework, "0 != m_discoveryFramework", SOURCE,
             "DiscoveryRepository::getOrbServiceName");
  return m_discoveryFramework->getOrbServiceName();
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
  {
    m_shuttingDown = false;
    LockWait::allow();
  }
  m_discoveryFramework =
      AutoDereference<DiscoveryFramework>::retain(const_cast<DiscoveryFramework*>(framework));
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
  return m_pushExplorers.snapshot();
}

DiscoveryRepository::Snapshot DiscoveryRepository::getPullExplorers() const
{
  return m_pullExplorers.snapshot();
}

AutoDereference<ExplorerWrapper>
DiscoveryRepository::makeRoom(AutoDereference<ExplorerWrapper> const& newcomer, Wins wins)
{
  // The pull explorers first, then the push explorers: one that beats the
  // first and is then refused by the second has driven the first out all the
  // same. Only a newcomer of type AT_REMOTEPULL can meet entries in both.
  for (Registrations* const registrations : {&m_pullExplorers, &m_pushExplorers})
  {
    // Such a one competes with every entry of its subject. When one of a set
    // is too strong, those of that set found before it stay as well.
    std::vector<AutoDereference<ExplorerWrapper>> beaten;
    while (auto const present = registrations->find(newcomer))
    {
      if (!wins(newcomer->getPriority(), present->getPriority()))
      {
        for (auto const& entry : beaten)
          registrations->insert(entry);
        return present;
      }
      beaten.push_back(present);
      registrations->erase(present);
    }
  }
  return {};
}

AutoDereference<ExplorerWrapper>
DiscoveryRepository::findOwn(AutoDereference<ExplorerWrapper> const& newcomer) const
{
  auto const isOwn = [](ExplorerWrapper const& entry) { return !isOfAnotherHost(entry); };
  auto const own = m_pullExplorers.findIf(newcomer, isOwn);
  return own ? own : m_pushExplorers.findIf(newcomer, isOwn);
}

void DiscoveryRepository::registerExplorer(Subject const* subject, ExplorerPush const* explorer,
                                           unsigned const& priority, Authority const* authority)
{
  constexpr char const* OPERATION = "DiscoveryRepository::registerExplorer";
  OZF_ASSERT(subject != nullptr, "NULL != subject", SOURCE, OPERATION);
  OZF_ASSERT(explorer != nullptr, "NULL != explorer", SOURCE, OPERATION);
  if (authority == nullptr)
    authority = getLocalAuthority();
  OZF_ASSERT(authority != nullptr, "NULL != authority", SOURCE, OPERATION);

  AutoDereference<ExplorerWrapper> const entry(
      new ExplorerWrapper(explorer, priority, subject, authority));

  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE, OPERATION);
  if (!makeRoom(entry, [](unsigned newcomer, unsigned present) { return newcomer > present; }))
    m_pushExplorers.insert(entry);
}

DiscoveryRepository::Registration
DiscoveryRepository::registerExplorer(Subject const* subject, ExplorerPull const* explorer,
                                      unsigned const& priority, Authority const* authority,
                                      bool fromCache)
{
  constexpr char const* OPERATION = "DiscoveryRepository::registerExplorer";
  OZF_ASSERT(subject != nullptr, "NULL != subject", SOURCE, OPERATION);
  OZF_ASSERT(explorer != nullptr, "NULL != explorer", SOURCE, OPERATION);
  if (authority == nullptr)
    authority = getLocalAuthority();
  OZF_ASSERT(authority != nullptr, "NULL != authority", SOURCE, OPERATION);

  AutoDereference<ExplorerWrapper> entry(
      new ExplorerWrapper(explorer, priority, subject, authority));

  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE, OPERATION);
  // Before anything gives way: what is dropped must not drive out anybody. One
  // that competes with a pull explorer will have its place, or be refused.
  if (m_pullExplorers.size() >= MAX_PULL_REGISTRATIONS && !m_pullExplorers.find(entry))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Dropped the registration of a pull explorer for subject "
                << entry->getSubject()->getName() << ": there are " << MAX_PULL_REGISTRATIONS
                << " already");
    return {Registration::TOO_MANY, {}};
  }
  if (!fromCache && isOfAnotherHost(*entry))
    if (auto const own = findOwn(entry); own && isOwnHostName(entry->getSubject()->getName().str()))
      return {Registration::OWN, own};
  // Here a registration of the same priority wins, unlike a push registration:
  // a host that registers again after a restart must replace its old entry.
  if (auto const standing =
          makeRoom(entry, [](unsigned newcomer, unsigned present) { return newcomer >= present; }))
    return {Registration::LOST, standing};
  if (!m_pullExplorers.insert(entry))
    return {Registration::LOST, m_pullExplorers.find(entry)};
  if (isGenericDSOnMaster() && !fromCache)
    persistToDisk(entry);
  return {};
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
  constexpr char const* OPERATION = "DiscoveryRepository::persistToDisk";
  OZF_ASSERT(isGenericDSOnMaster(), "isGenericDSOnMaster()", SOURCE, OPERATION);

  // Only registrations of other hosts need the cache: an explorer of this host
  // registers itself again whenever the service starts.
  auto const* const remote = dynamic_cast<RemoteExplorerPull const*>(entry->getExplorer());
  if (remote == nullptr)
    return;

  // A zero interval would make the record expire at once, and be deleted when
  // the cache is read: it stays until a newer registration replaces it.
  CollectionAttributes attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime(),
                                  OzfObjTime(), entry->getPriority());
  attributes.setExpiresTime(OzfObjTime::max());
  Authority const authority(entry->getAuthority()->getName().str(), AT_REMOTEPULL);
  Subject const subject(entry->getSubject()->getName().str());

  AutoDereference<Discovery> discovery;
  newDiscovery(discovery, DQ_UNDEFINED, subject, authority, attributes);
  if (discovery->open(OM_UPDATE, "") != DS_SUCCESS)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to open collection");
    return;
  }

  constexpr auto ENCODING = XmlStr::UTF_8;
  std::ostringstream document;
  auto const element = [&document](char const* name, OzfString const& value)
  {
    XmlStr::appendStart(document, name);
    document << XmlStr(value, ENCODING);
    XmlStr::appendEnd(document, name);
  };
  XmlStr::xmlProlog(document, ENCODING);
  XmlStr::appendStart(document, "DiscoveredItems");
  element("SourceHost", remote->getHost().toString());
  element("ServiceName", remote->getServiceName());
  element("Priority", std::to_string(entry->getPriority()));
  element("OriginType", std::to_string(static_cast<int>(remote->getAuthorityType())));
  XmlStr::appendEnd(document, "DiscoveredItems");
  document << '\n';

  std::string const text = document.str();
  if (!discovery->getCollectionData()->writeCollection(text.size(), text.data()) ||
      discovery->persist() != DS_SUCCESS)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to persist discovery record.");
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

void DiscoveryRepository::startExplorers(ExplorerSet explorers, EngineContext const& context)
{
  for (auto const& entry : explorers)
    callExplorer(*entry->getExplorer(), SOURCE, "DiscoveryRepository::startExplorers",
                 [&]
                 {
                   entry->getExplorer()->startExploration(context, *entry->getAuthority(),
                                                          *entry->getSubject(), entry->getContext(),
                                                          this);
                 });
}

void DiscoveryRepository::stopExplorers(ExplorerSet const& explorers)
{
  for (auto const& entry : explorers)
    callExplorer(*entry->getExplorer(), SOURCE, "DiscoveryRepository::stopExplorers",
                 [&]
                 {
                   entry->getExplorer()->stopExploration(*entry->getAuthority(),
                                                         *entry->getSubject(), entry->getContext());
                 });
}

void DiscoveryRepository::shutdown()
{
  constexpr char const* OPERATION = "DiscoveryRepository::shutdown";
  OZF_ASSERT(!m_shuttingDown, "!m_shuttingDown", SOURCE, OPERATION);
  m_shuttingDown = true;

  getDiscoveriesThreadMgr().waitForRefresh();

  {
    OZFBlockUntil timersGone;
    AutoDereference<ExplorerPushTimer> pushTimer;
    AutoDereference<ExplorerRegisterTimer> registerTimer;
    {
      // Under the mutex, so that no firing puts a timer back after this.
      std::lock_guard guard(m_timersMutex);
      pushTimer = std::move(m_pushTimer);
      registerTimer = std::move(m_registerTimer);
    }
    if (pushTimer)
    {
      timersGone.add(*pushTimer);
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
  m_pushExplorers.clear();
  m_pullExplorers.clear();
}

void DiscoveryRepository::fini()
{
  OZF_ASSERT(m_shuttingDown, "m_shuttingDown", SOURCE, "DiscoveryRepository::fini");
  m_barrier->wait();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
