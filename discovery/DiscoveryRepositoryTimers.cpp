// The push timer and the register timer.

#include "discovery/DiscoveryRepositoryTimers.h"

#include "discovery/AnnouncementState.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerCall.h"
#include "discovery/ExplorerPayload.h"
#include "discovery/ExplorerRuns.h"
#include "discovery/RefreshRequests.h"
#include "ozf/config/HostRole.h"
#include "ozf/orb/Orb.h"
#include "ozf/sync/AceReactor.h"

#include <ace/Reactor.h>

#include <cstdlib>
#include <limits>
#include <optional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscoveryRepository";

constexpr int PUSH_PERIOD = 5;      // seconds
constexpr int REGISTER_RETRY = 300; // seconds
constexpr int REGISTER_DELAY_RANGE = 300;
constexpr int TRIGGERED_PUSH_RANGE = 60;

constexpr char PUSH_FIRING[] = "ExplorerPushTimer::handle_timeout";

// What the reactor's thread may take: for the master's answer, for the look at whether a
// budget is over, and for a call to the master.
constexpr std::chrono::minutes LOOK_FOR_REQUESTS(2);
constexpr std::chrono::seconds RELIEF(5);
constexpr std::chrono::minutes CALL_TO_MASTER(1);

// Each trigger may put a pass off by a minute; explorers' records hold a quarter
// longer than their interval.
constexpr std::chrono::minutes QUIET_AFTER_TRIGGERED(5);

// A number in [0, range) that the leading digits of the host's name decide:
// every host whose name does not begin with digits gets the same one.
int randomDelay(int range)
{
  OzfHostname local;
  local.setLocal();
  srand(static_cast<unsigned>(strtol(local.exportNarrow().c_str(), nullptr, 10)));
  return rand() % range;
}

OzfObjTime wholeSeconds(PollingInterval seconds)
{
  constexpr PollingInterval MOST = std::numeric_limits<std::int64_t>::max();
  return OzfObjTime(static_cast<std::int64_t>(seconds < MOST ? seconds : MOST));
}

// Makes the reactor's thread known to the ORB before it calls out. False, with
// the line given, when there is no ORB or no core.
bool enterOrb(DiscoveryRepository const& repository, char const* operation,
              char const* noCoreMessage)
{
  Orb* const orb = repository.findOrb();
  if (orb == nullptr)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation, "Cannot get instance of ORB");
    return false;
  }
  OrbCore* const core = orb->getOrbCore();
  if (core == nullptr)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation, noCoreMessage);
    return false;
  }
  core->lf_strategy().set_upcall_thread(core->leader_follower());
  return true;
}

} // namespace

// ---- what both timers share ----

DiscoveryRepository::DiscoveryTimerBase::~DiscoveryTimerBase() = default;

void DiscoveryRepository::DiscoveryTimerBase::schedule(ACE_Time_Value const& delay)
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "DiscoveryTimerBase::schedule");
  if (m_shutDown)
    return;
  // A firing that re-arms itself while it is triggered must not leave two.
  cancel();
  m_reactor = getAceReactor();
  if (m_reactor == nullptr || m_reactor->schedule_timer(this, nullptr, delay) == -1)
    OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoveryTimerBase::schedule",
            "Unable to schedule a timer");
}

void DiscoveryRepository::DiscoveryTimerBase::cancel()
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "DiscoveryTimerBase::cancel");
  constexpr int DONT_CALL_HANDLE_CLOSE = 1;
  if (m_reactor != nullptr)
    m_reactor->cancel_timer(this, DONT_CALL_HANDLE_CLOSE);
}

void DiscoveryRepository::DiscoveryTimerBase::shutdown()
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "DiscoveryTimerBase::shutdown");
  m_shutDown = true;
  cancel();
}

int DiscoveryRepository::DiscoveryTimerBase::handle_timeout(ACE_Time_Value const& now, void const*)
{
  callGuarded([&] { fire(OzfObjTime(now.sec(), now.usec())); },
              [this](std::string const& reason)
              {
                OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoveryTimerBase::handle_timeout",
                        "A timer's firing ended early and is tried again: " << reason);
                retry(reason);
              });
  return 0;
}

void DiscoveryRepository::DiscoveryTimerBase::retry(std::string const&) { schedule(retryDelay()); }

// ---- the push timer ----

DiscoveryRepository::ExplorerPushTimer::ExplorerPushTimer(
    DiscoveryRepository& repository, std::shared_ptr<ExplorerSet const> explorers)
    : m_repository(repository), m_explorers(std::move(explorers)), m_period(PUSH_PERIOD)
{
}

DiscoveryRepository::ExplorerPushTimer::ExplorerPushTimer(ExplorerPushTimer& held,
                                                          ExplorerSet::const_iterator next,
                                                          OzfObjTime const& fired)
    : m_repository(held.m_repository),
      m_explorers(held.m_explorers),
      m_period(held.m_period),
      m_rest(std::pair(next, fired))
{
  LockableGuard lockableGuard(held);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "ExplorerPushTimer::ExplorerPushTimer");
  m_quietUntil = held.m_quietUntil;
}

bool DiscoveryRepository::ExplorerPushTimer::trigger(ACE_Time_Value const& delay)
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "ExplorerPushTimer::trigger");
  if (m_triggered || (delay > m_period && s_clock.load()() < m_quietUntil))
    return false;
  m_triggered = true;
  schedule(delay); // takes the firing that was set away
  return true;
}

void DiscoveryRepository::ExplorerPushTimer::noteFiring()
{
  LockableGuard lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE,
             "ExplorerPushTimer::handle_timeout");
  if (m_triggered)
    m_quietUntil = s_clock.load()() + QUIET_AFTER_TRIGGERED;
  m_triggered = false;
}

void DiscoveryRepository::ExplorerPushTimer::fire(OzfObjTime const& fired)
{
  noteFiring();
  if (!enterOrb(m_repository, PUSH_FIRING, "Cannot get instance of ORB"))
    return;
  auto [entry, passTime] = m_rest.value_or(std::pair(m_explorers->begin(), fired));
  if (!m_rest)
  {
    m_repository.getOrb()->allowReactor(LOOK_FOR_REQUESTS);
    getRefreshRequests().obey(
        [this] {
          return m_repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", REFRESH_PATTERN, AT_EXTSRC);
        },
        *m_explorers);
  }
  m_rest.reset();

  for (; entry != m_explorers->end(); ++entry)
    if (m_repository.isShuttingDown() || !visit(entry, passTime))
      return;
  m_repository.getOrb()->allowReactor(std::chrono::milliseconds(0));
  schedule(m_period);
}

// False when the pass went on without this thread.
bool DiscoveryRepository::ExplorerPushTimer::visit(ExplorerSet::const_iterator entry,
                                                   OzfObjTime const& fired)
{
  ExplorerWrapper& visited = **entry;
  auto* const explorer = dynamic_cast<ExplorerPush*>(visited.getExplorer());
  OZF_ASSERT(explorer != nullptr, "NULL != exp", SOURCE, PUSH_FIRING);
  std::shared_ptr<ExplorerRecord> const& record = visited.getRecord();
  if (record && !getExplorerRuns().mayRun(*record))
    return true;
  auto const budget = ExplorerRuns::budget();
  m_repository.getOrb()->allowReactor(budget + RELIEF);

  OzfObjTime now;
  OzfObjTime interval;
  bool due = false;
  callExplorer(*explorer, SOURCE, PUSH_FIRING,
               [&]
               {
                 now = OzfObjTime::now();
                 interval = wholeSeconds(explorer->getPollingInterval());
                 due = !(explorer->getLastExplorationTime() + interval > now);
               });
  if (!due)
    return true;

  bool late = false;
  {
    auto const self = AutoDereference<ExplorerPushTimer>::retain(this);
    std::optional<ExplorerRun> run;
    if (record)
      run.emplace(record, budget,
                  [self, next = std::next(entry), fired]
                  { self->m_repository.passOn(*self, next, fired); });
    callExplorer(*explorer, SOURCE, PUSH_FIRING,
                 [&]
                 {
                   explorer->setLastExplorationTime(now);
                   CollectionAttributes const attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                         fired, interval, visited.getPriority());
                   DiscoveryResult result{DS_SUCCESS, 0};
                   // So it stays when the explorer throws.
                   visited.noteRun(now, DS_LOGIC_ERROR);
                   if (run)
                     run->finish(Explorers::describe(DS_LOGIC_ERROR), false);
                   explorer->explore(*visited.getAuthority(), *visited.getSubject(), attributes,
                                     visited.getContext(), &m_repository, result);
                   visited.noteRun(now, result.discStatus);
                   if (run)
                     run->finish(Explorers::describe(result.discStatus),
                                 isInOrder(result.discStatus));
                 });
    late = run && run->end();
  }
  if (late && visited.isStopDue())
    m_repository.stopExplorer(visited);
  return !late;
}

// ---- the register timer ----

DiscoveryRepository::ExplorerRegisterTimer::ExplorerRegisterTimer(
    DiscoveryRepository& repository, AutoDereference<DiscoveryFramework> const& framework)
    : m_repository(repository), m_framework(framework)
{
}

ACE_Time_Value DiscoveryRepository::ExplorerRegisterTimer::retryDelay() const
{
  return ACE_Time_Value(REGISTER_RETRY);
}

void DiscoveryRepository::ExplorerRegisterTimer::retry(std::string const& reason)
{
  schedule(retryDelay());
  getAnnouncementState().noteFailure(reason, REGISTER_RETRY);
}

void DiscoveryRepository::ExplorerRegisterTimer::fire(OzfObjTime const&)
{
  constexpr char const* OPERATION = "ExplorerRegisterTimer::handle_timeout";
  if (!enterOrb(m_repository, OPERATION, "Cannot get instance of ORB Core"))
    return;

  OzfHostname master;
  m_repository.getMasterServerName(master);
  if (master.empty())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Cannot find master server name, cannot register explorers");
    retry("SERVER is missing in the configuration");
    return;
  }

  try
  {
    if (announce(master))
    {
      getAnnouncementState().noteAnnounced();
      m_repository.startPushTimer();
    }
    else
      retry("the service on " + master.exportNarrow() + " could not be reached");
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Caught CORBA exception registering explorers with master, retrying later"
                << corbaExceptionText(exception));
    retry("the service on " + master.exportNarrow() + " failed: " + corbaExceptionText(exception));
  }
}

bool DiscoveryRepository::ExplorerRegisterTimer::announce(OzfHostname const& master)
{
  constexpr char const* OPERATION = "ExplorerRegisterTimer::handle_timeout";
  Orb& orb = *m_repository.getOrb();
  orb.allowReactor(CALL_TO_MASTER);
  Snapshot const explorers = m_repository.getPullExplorers();
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "Registering " << explorers->size() << " explorers with master server");

  Remote::DiscoveryService_var const service =
      m_repository.connectToRemoteDiscoveryService(master, DISCOVERY_SERVICE);
  if (CORBA::is_nil(service))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Failed to connect to discovery service on the master, retrying later");
    return false;
  }

  OzfHostname local;
  local.setLocal();
  std::string const serviceName = m_repository.getOrbServiceName();
  {
    // Shutting this timer down waits here for the loop to end.
    LockableGuard lockableGuard(*this);
    OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE, OPERATION);
    for (auto const& entry : *explorers)
    {
      if (m_repository.isShuttingDown())
        break;
      orb.allowReactor(CALL_TO_MASTER);
      service->registerExplorer(
          local.exportNarrow().c_str(), serviceName.c_str(), entry->getSubject()->getName().c_str(),
          entry->getAuthority()->getName().c_str(), entry->getAuthority()->getType(),
          static_cast<CORBA::Short>(entry->getPriority()));
    }
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Successfully registered explorers with master");
  return true;
}

// ---- the repository's side ----

void DiscoveryRepository::startPushTimer()
{
  AutoDereference<ExplorerPushTimer> const timer(new ExplorerPushTimer(*this, getPushExplorers()));
  AutoDereference<ExplorerPushTimer> previous;
  {
    std::lock_guard guard(m_timersMutex);
    if (isShuttingDown())
      return;
    previous = std::move(m_pushTimer);
    m_pushTimer = timer;
  }
  // A timer that is only released would go on re-arming itself.
  if (previous)
    previous->shutdown();
  timer->schedule(ACE_Time_Value::zero);
}

void DiscoveryRepository::passOn(ExplorerPushTimer& held, ExplorerSet::const_iterator next,
                                 OzfObjTime const& fired)
{
  AutoDereference<ExplorerPushTimer> rest;
  {
    std::lock_guard guard(m_timersMutex);
    if (m_pushTimer.get() == &held)
    {
      if (!isShuttingDown())
        rest.reset(new ExplorerPushTimer(held, next, fired));
      m_pushTimer = rest;
    }
    OZFBlockUntil::leave(held);
  }
  held.shutdown();
  if (Orb* const orb = findOrb())
    orb->relieveReactor();
  if (rest)
    rest->schedule(ACE_Time_Value::zero);
}

void DiscoveryRepository::startRegisterTimer()
{
  AutoDereference<ExplorerRegisterTimer> const timer(
      new ExplorerRegisterTimer(*this, m_discoveryFramework));
  AutoDereference<ExplorerRegisterTimer> previous;
  {
    std::lock_guard guard(m_timersMutex);
    if (isShuttingDown())
      return;
    previous = std::move(m_registerTimer);
    m_registerTimer = timer;
  }
  if (previous)
    previous->shutdown();
  int const delay = randomDelay(REGISTER_DELAY_RANGE);
  timer->schedule(ACE_Time_Value(delay));
  getAnnouncementState().noteWaiting(delay);
}

void DiscoveryRepository::triggerPushTimer()
{
  AutoDereference<ExplorerPushTimer> timer;
  {
    std::lock_guard guard(m_timersMutex);
    timer = m_pushTimer;
  }
  if (!timer)
    return;
  getRefreshRequests().noteCall();
  int const delay = randomDelay(TRIGGERED_PUSH_RANGE);
  OZF_LOG(getOzfLogger(), 4, SOURCE, "DiscoveryRepository::triggerPushTimer",
          "triggering push in " << delay << " seconds");
  if (!timer->trigger(ACE_Time_Value(delay)))
    OZF_LOG(getOzfLogger(), 4, SOURCE, "DiscoveryRepository::triggerPushTimer",
            "leaving the next push where it is, which is sooner");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
