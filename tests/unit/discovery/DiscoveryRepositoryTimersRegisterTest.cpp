// The register timer and when it is set, and the push timer's limits.

#include "discovery/DiscoveryRepositoryTimers.h"

#include "discovery/DiscoveryLog.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/RemoteService.h"
#include "tests/support/Service.h"

#include "ozf/sync/AceReactor.h"

#include <ace/Reactor.h>
#include <ace/Timer_Queue.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <omnithread.h>
#include <optional>

using namespace tqtest;

namespace
{

constexpr char REGISTER[] = "ExplorerRegisterTimer::handle_timeout";

using PushTimer = DiscoveryRepository::ExplorerPushTimer;
using RegisterTimer = DiscoveryRepository::ExplorerRegisterTimer;

// In how many seconds the reactor will call each handler that the test accepts,
// counted up to the next whole one; 0 when it is due.
template <class Accept>
std::vector<long> firingsOf(Accept accept)
{
  std::vector<long> firings;
  ACE_Timer_Queue* const queue = getAceReactor()->timer_queue();
  ACE_Time_Value const now = queue->gettimeofday();
  auto& entry = queue->iter();
  for (entry.first(); !entry.isdone(); entry.next())
  {
    auto* const node = entry.item();
    if (!accept(node->get_type()))
      continue;
    ACE_Time_Value const left = node->get_timer_value() - now;
    firings.push_back(std::max(0L, static_cast<long>(left.sec()) + (left.usec() > 0 ? 1 : 0)));
  }
  return firings;
}

// The first of them; nothing when it has none.
template <class Accept>
std::optional<long> firingOf(Accept accept)
{
  auto const firings = firingsOf(accept);
  return firings.empty() ? std::nullopt : std::optional(firings.front());
}

bool isPushTimer(ACE_Event_Handler* handler)
{
  return dynamic_cast<PushTimer*>(handler) != nullptr;
}

// Whether the ORB knows a new thread once the timer has fired on it.
template <class Timer>
bool makesItsThreadKnown(Timer& timer)
{
  bool known = false;
  std::thread(
      [&]
      {
        EXPECT_EQ(nullptr, omni_thread::self());
        timer.handle_timeout(ACE_Time_Value::zero, nullptr);
        known = omni_thread::self() != nullptr;
      })
      .join();
  return known;
}

// The same, looked at on the reactor's own thread, which runs timers meanwhile.
class Look : public ACE_Event_Handler
{
public:
  explicit Look(std::function<bool(ACE_Event_Handler*)> accept) : m_accept(std::move(accept)) {}

  std::vector<long> firings()
  {
    std::future<std::vector<long>> seen = m_seen.get_future();
    EXPECT_EQ(0, getAceReactor()->notify(this));
    return seen.wait_for(std::chrono::seconds(60)) == std::future_status::ready
               ? seen.get()
               : std::vector<long>();
  }

private:
  int handle_exception(ACE_HANDLE) override
  {
    m_seen.set_value(firingsOf(m_accept));
    return 0;
  }

  std::function<bool(ACE_Event_Handler*)> const m_accept;
  std::promise<std::vector<long>> m_seen;
};

std::optional<long> firingIn(ACE_Event_Handler const& handler)
{
  auto const firings =
      Look([&](ACE_Event_Handler* candidate) { return candidate == &handler; }).firings();
  return firings.empty() ? std::nullopt : std::optional(firings.front());
}

// ---- the register timer ----

// The master is the test service.
class RegisterTimerTest : public RemoteServiceTest
{
protected:
  RegisterTimerTest() : RemoteServiceTest("HOST_ADDRESS.closed = 127.0.0.2\n") {}

  void SetUp() override
  {
    RemoteServiceTest::SetUp();
    setAceReactor(m_orb->getReactor());
    m_timer.reset(new RegisterTimer(getDiscoveryRepository(), m_framework));
  }
  void TearDown() override
  {
    m_timer->shutdown();
    if (!getDiscoveryRepository().isShuttingDown())
      getDiscoveryRepository().shutdown();
    setAceReactor(nullptr);
    RemoteServiceTest::TearDown();
  }

  void fire() { m_timer->handle_timeout(ACE_Time_Value::zero, nullptr); }

  void expectRetryIn300Seconds()
  {
    EXPECT_EQ(2, m_timer->referenceCount()) << "the reactor holds one";
    EXPECT_EQ(std::vector<long>{300}, firingsOfTimer());
  }
  void expectNoRetry()
  {
    EXPECT_EQ(1, m_timer->referenceCount());
    EXPECT_TRUE(firingsOfTimer().empty());
  }
  std::vector<long> firingsOfTimer()
  {
    return Look([this](ACE_Event_Handler* candidate) { return candidate == m_timer.get(); })
        .firings();
  }
  static bool hasPushTimer() { return firingOf(isPushTimer).has_value(); }
  static void registerPull(std::string const& subject)
  {
    AutoDereference<FakePull> const explorer(new FakePull(subject));
    getDiscoveryRepository().registerExplorer(new Subject(subject), explorer.get(), 1,
                                              new Authority("a", AT_TQUCLIENT), false);
  }

  CallList m_calls; // outlives the test's end, which stops the explorers
  AutoDereference<RegisterTimer> m_timer;
};

TEST_F(RegisterTimerTest, WithoutAMasterNameItIsSetForThreeHundredSeconds)
{
  writeText(m_root / "etc/tq.conf", "CLIENT_NAME = clienthost\n");
  ASSERT_TRUE(reloadConfiguration());
  fire();
  EXPECT_TRUE(m_log.has(1, REGISTER, "Cannot find master server name, cannot register explorers"));
  expectRetryIn300Seconds();
  EXPECT_FALSE(hasPushTimer());
}

TEST_F(RegisterTimerTest, WithoutAConnectionItIsSetForThreeHundredSeconds)
{
  serveWriter();
  m_orb->advertiseObject(SERVICE, m_service->writer); // no discovery service
  fire();
  EXPECT_TRUE(m_log.has(1, REGISTER,
                        "Failed to connect to discovery service on the master, retrying later"))
      << m_log.text();
  expectRetryIn300Seconds();
  EXPECT_FALSE(hasPushTimer());
}

TEST_F(RegisterTimerTest, AnExceptionOfTheMasterSetsItForThreeHundredSeconds)
{
  registerPull("one");
  m_service->beforeRegister = [] { throw CORBA::NO_RESOURCES(); };
  fire();
  EXPECT_NE(std::string::npos,
            m_log.text().find("1 " + std::string(REGISTER) +
                              ": Caught CORBA exception registering explorers with master, "
                              "retrying laterNO_RESOURCES"))
      << m_log.text();
  expectRetryIn300Seconds();
  EXPECT_FALSE(hasPushTimer());
}

TEST_F(RegisterTimerTest, AFiringThatFailsOtherwiseSetsItForThreeHundredSeconds)
{
  struct Forgetful : DiscoveryRepository
  {
    void getMasterServerName(OzfHostname&) const override { throw std::runtime_error("forgotten"); }
  };
  Forgetful repository;
  repository.setDiscoveryFramework(m_framework.get());
  m_timer.reset(new RegisterTimer(repository, m_framework));
  fire();
  EXPECT_TRUE(m_log.has(1, "DiscoveryTimerBase::handle_timeout",
                        "A timer's firing ended early and is tried again: forgotten"))
      << m_log.text();
  expectRetryIn300Seconds();
}

TEST_F(RegisterTimerTest, OnceAnnouncedItIsNotSetAgainAndThePushTimerIs)
{
  registerPull("one");
  registerPull("two");
  AutoDereference<FakePush> const pusher(new FakePush("pusher", &m_calls, 3600));
  getDiscoveryRepository().registerExplorer(new Subject("p"), pusher.get(), 1,
                                            new Authority("a", AT_TQUCLIENT));
  fire();
  EXPECT_EQ((std::vector<std::string>{"one", "two"}), m_service->registered);
  EXPECT_TRUE(m_log.has(1, REGISTER, "Successfully registered explorers with master"));
  expectNoRetry();
  EXPECT_TRUE(m_calls.waitFor(
      [](auto const& names)
      { return std::find(names.begin(), names.end(), "explore pusher") != names.end(); },
      std::chrono::seconds(60)));
}

TEST_F(RegisterTimerTest, TriggeringThePushTimerMovesItsOneFiring)
{
  // A name that draws a delay which no other timer has, and which leaves a slow
  // machine time to look.
  unsigned digits = 1;
  int delay = 0;
  for (; delay < 45; ++digits)
  {
    srand(digits);
    delay = rand() % 60;
  }
  OzfHostname::overrideLocal(std::to_string(digits - 1) + "host");

  AutoDereference<FakePush> const pusher(new FakePush("pusher", &m_calls, 3600));
  getDiscoveryRepository().registerExplorer(new Subject("p"), pusher.get(), 1,
                                            new Authority("a", AT_TQUCLIENT));
  getDiscoveryRepository().startPushTimer();
  // The first pass is over when the next is set.
  ASSERT_TRUE(
      m_calls.waitFor([](auto const& names) { return !names.empty(); }, std::chrono::seconds(60)));
  ASSERT_TRUE(eventually(
      []
      {
        auto const firings = Look(isPushTimer).firings();
        return firings.size() == 1 && firings.front() > 1 && firings.front() <= 5;
      }));
  getDiscoveryRepository().triggerPushTimer();
  auto const firings = Look(isPushTimer).firings();
  ASSERT_EQ(1u, firings.size());
  EXPECT_LE(firings.front(), delay);
  EXPECT_GT(firings.front(), delay - 30);
  EXPECT_TRUE(m_log.has(4, "DiscoveryRepository::triggerPushTimer",
                        "triggering push in " + std::to_string(delay) + " seconds"))
      << m_log.text();
}

TEST_F(RegisterTimerTest, TheShutdownEndsTheAnnouncementsBetweenTwoExplorers)
{
  registerPull("one");
  registerPull("two");
  registerPull("three");
  m_service->beforeRegister = [] { getDiscoveryRepository().shutdown(); };
  fire();
  EXPECT_EQ(std::vector<std::string>{"one"}, m_service->registered);
  expectNoRetry();
  EXPECT_FALSE(hasPushTimer());
}

TEST_F(RegisterTimerTest, ItsShutdownWaitsForTheEndOfTheAnnouncements)
{
  registerPull("one");
  registerPull("two");
  std::future<void> ending;
  m_service->beforeRegister = [&]
  {
    if (ending.valid())
      return;
    ending = std::async(std::launch::async, [&] { m_timer->shutdown(); });
    // One that did not wait would be through long before this.
    EXPECT_EQ(std::future_status::timeout, ending.wait_for(std::chrono::seconds(1)));
  };
  fire();
  ASSERT_TRUE(ending.valid());
  EXPECT_EQ(std::future_status::ready, ending.wait_for(std::chrono::seconds(60)));
  EXPECT_EQ((std::vector<std::string>{"one", "two"}), m_service->registered);
}

TEST_F(RegisterTimerTest, ItsThreadIsKnownToTheOrb)
{
  // It ends before it calls anybody: during a call the ORB knows any thread.
  writeText(m_root / "etc/tq.conf", "CLIENT_NAME = clienthost\n");
  ASSERT_TRUE(reloadConfiguration());
  EXPECT_TRUE(makesItsThreadKnown(*m_timer));
}

TEST_F(RegisterTimerTest, WithoutAnOrbItSaysSoAndIsNotSet)
{
  AutoDereference<DiscoveryFramework> const withoutOrb(
      new DiscoveryFramework("", DST_NONE, nullptr, false));
  getDiscoveryRepository().setDiscoveryFramework(withoutOrb.get());
  fire();
  EXPECT_EQ(1, m_log.count(1, REGISTER, "Cannot get instance of ORB")) << m_log.text();
  expectNoRetry();
  getDiscoveryRepository().setDiscoveryFramework(m_framework.get());
}

TEST_F(RegisterTimerTest, WithAnOrbThatIsDownItSaysSoAndIsNotSet)
{
  Orb down(0, "", "down", 0, 0);
  AutoDereference<DiscoveryFramework> const withOrbDown(
      new DiscoveryFramework("", DST_NONE, &down, false));
  getDiscoveryRepository().setDiscoveryFramework(withOrbDown.get());
  fire();
  EXPECT_EQ(1, m_log.count(1, REGISTER, "Cannot get instance of ORB Core")) << m_log.text();
  expectNoRetry();
  getDiscoveryRepository().setDiscoveryFramework(m_framework.get());
}

TEST_F(RegisterTimerTest, TheFirstDelayDependsOnTheLeadingDigitsOfTheName)
{
  auto const firstDelay = [](char const* name)
  {
    OzfHostname::overrideLocal(name);
    getDiscoveryRepository().startRegisterTimer();
    return firingOf([](ACE_Event_Handler* handler)
                    { return dynamic_cast<RegisterTimer*>(handler) != nullptr; })
        .value_or(-1);
  };
  auto const drawn = [](unsigned seed)
  {
    srand(seed);
    return rand() % 300;
  };
  EXPECT_EQ(drawn(0), firstDelay("web1"));
  EXPECT_EQ(drawn(0), firstDelay("db2"));
  EXPECT_EQ(drawn(17), firstDelay("17a"));
  EXPECT_EQ(drawn(17), firstDelay("17b"));
  EXPECT_EQ(drawn(2), firstDelay("2"));
  EXPECT_NE(drawn(0), drawn(17));
  EXPECT_GT(drawn(0), 60) << "drawn from the wider range";
}

// ---- the push timer ----

// A push timer that the test fires itself, under a clock of the test.
struct PushTimerTest : testing::Test
{
  static inline std::atomic<std::int64_t> microseconds{0};
  static void setNow(std::int64_t seconds, std::int64_t part = 0)
  {
    microseconds = seconds * 1'000'000 + part;
  }

  Service host;
  LogCapture log;
  CallList calls;

  void SetUp() override { host.start(); }
  void TearDown() override { OzfObjTime::setClock(nullptr); }

  static void useClock()
  {
    OzfObjTime::setClock(
        [] { return OzfObjTime(microseconds / 1'000'000, microseconds % 1'000'000); });
  }
  static DiscoveryRepository::Snapshot entriesOf(Explorer const& explorer)
  {
    ExplorerSet set;
    set.insert(AutoDereference<ExplorerWrapper>(
        new ExplorerWrapper(&explorer, 1, new Subject("s"), new Authority("a", AT_TQUCLIENT))));
    return std::make_shared<ExplorerSnapshot const>(set);
  }
  static AutoDereference<PushTimer> timerFor(Explorer const& explorer)
  {
    return AutoDereference<PushTimer>(new PushTimer(getDiscoveryRepository(), entriesOf(explorer)));
  }
  // The number of explorations after one more pass.
  std::size_t pass(PushTimer& timer)
  {
    timer.handle_timeout(ACE_Time_Value::zero, nullptr);
    timer.cancel();
    return calls.names().size();
  }
};

TEST_F(PushTimerTest, AnExplorerIsDueWhenItsIntervalIsOverToTheMicrosecond)
{
  AutoDereference<FakePush> const explorer(new FakePush("x", &calls, 100));
  auto const timer = timerFor(*explorer);
  explorer->setLastExplorationTime(OzfObjTime(5000, 7));
  useClock();
  setNow(5100, 6);
  EXPECT_EQ(0u, pass(*timer)) << "a microsecond early";
  setNow(5100, 7);
  EXPECT_EQ(1u, pass(*timer));
  EXPECT_EQ(OzfObjTime(5100, 7), explorer->getLastExplorationTime());
  EXPECT_EQ(1u, pass(*timer)) << "it has just run";
}

TEST_F(PushTimerTest, AnExplorerOfTheFutureRunsOnceItsTimeHasCome)
{
  AutoDereference<FakePush> const explorer(new FakePush("x", &calls, 10));
  auto const timer = timerFor(*explorer);
  explorer->setLastExplorationTime(OzfObjTime(9000));
  useClock();
  for (std::int64_t const now : {5000, 8999, 9000, 9009})
  {
    setNow(now);
    EXPECT_EQ(0u, pass(*timer)) << now;
  }
  setNow(9010);
  EXPECT_EQ(1u, pass(*timer));
}

TEST_F(PushTimerTest, TheDiscoveryTimeIsThatOfTheFiringAndTheLastRunThatOfTheClock)
{
  AutoDereference<FakePush> const explorer(new FakePush("x", &calls, 100));
  OzfObjTime discovered;
  explorer->onExplore = [&](auto const&, auto const&, CollectionAttributes const& attributes,
                            auto const&...) { discovered = attributes.getDiscoveryTime(); };
  auto const timer = timerFor(*explorer);
  useClock();
  setNow(5000);
  timer->handle_timeout(ACE_Time_Value(1234, 5), nullptr);
  timer->cancel();
  EXPECT_EQ(OzfObjTime(1234, 5), discovered);
  EXPECT_EQ(OzfObjTime(5000), explorer->getLastExplorationTime());
}

TEST_F(PushTimerTest, WithAnOrbThatIsDownItSaysSoAndIsNotSet)
{
  AutoDereference<FakePush> const explorer(new FakePush("x", &calls, 0));
  Orb down(0, "", "down", 0, 0);
  AutoDereference<DiscoveryFramework> const withOrbDown(
      new DiscoveryFramework("", DST_NONE, &down, false));
  DiscoveryRepository repository;
  repository.setDiscoveryFramework(withOrbDown.get());
  AutoDereference<PushTimer> const timer(new PushTimer(repository, entriesOf(*explorer)));
  timer->handle_timeout(ACE_Time_Value::zero, nullptr);
  EXPECT_EQ(1, log.count(1, "ExplorerPushTimer::handle_timeout", "Cannot get instance of ORB"))
      << log.text();
  EXPECT_EQ(1, timer->referenceCount());
  EXPECT_FALSE(firingIn(*timer));
  EXPECT_TRUE(calls.names().empty());
}

TEST_F(PushTimerTest, ItsThreadIsKnownToTheOrb)
{
  AutoDereference<FakePush> const explorer(new FakePush("x", &calls, 0));
  bool knownToExplorer = false;
  explorer->onExplore = [&](auto const&...) { knownToExplorer = omni_thread::self() != nullptr; };
  auto const timer = timerFor(*explorer);
  EXPECT_TRUE(makesItsThreadKnown(*timer));
  EXPECT_TRUE(knownToExplorer);
  timer->cancel();
}

TEST_F(PushTimerTest, APassSetsTheNextInFiveSeconds)
{
  AutoDereference<FakePush> const explorer(new FakePush("x", &calls, 100));
  auto const timer = timerFor(*explorer);
  timer->handle_timeout(ACE_Time_Value::zero, nullptr);
  EXPECT_EQ(2, timer->referenceCount());
  EXPECT_EQ(5, firingIn(*timer).value_or(-1));
  timer->shutdown();
}

TEST_F(PushTimerTest, APassThatFailsAnAssertionSetsTheNextAllTheSame)
{
  AutoDereference<FakePull> const noPushExplorer(new FakePull("x", &calls));
  auto const timer = timerFor(*noPushExplorer);
  EXPECT_NO_THROW(timer->handle_timeout(ACE_Time_Value::zero, nullptr));
  EXPECT_TRUE(log.has(1, "ExplorerPushTimer::handle_timeout", "Assertion failed: NULL != exp"))
      << log.text();
  EXPECT_EQ(2, timer->referenceCount());
  EXPECT_EQ(5, firingIn(*timer).value_or(-1));
  timer->shutdown();
  EXPECT_EQ(1, timer->referenceCount());
}

// ---- startPushTimer ----

// Timers are set on a reactor that fires them when the test says so.
struct StartPushTimerTest : testing::Test
{
  CallList calls; // outlives the service, whose end stops the explorers
  ACE_Reactor reactor;
  Service host;

  void SetUp() override
  {
    host.start();
    setAceReactor(&reactor);
  }
  void TearDown() override { host.stop(); }

  AutoDereference<FakePush> registered(std::string const& name)
  {
    AutoDereference<FakePush> explorer(new FakePush(name, &calls, 3600));
    getDiscoveryRepository().registerExplorer(new Subject(name), explorer.get(), 1,
                                              new Authority("a", AT_TQUCLIENT));
    return explorer;
  }
  std::vector<std::string> fire()
  {
    ACE_Time_Value none;
    reactor.handle_events(none);
    return calls.names();
  }
};

TEST_F(StartPushTimerTest, ItFiresAtOnceForTheExplorersThatAreRegisteredByThen)
{
  std::vector<long> const atOnce = {0};
  std::vector<long> const inFiveSeconds = {5};
  auto const early = registered("early");
  getDiscoveryRepository().startPushTimer();
  EXPECT_EQ(atOnce, firingsOf(isPushTimer));
  auto const late = registered("late");
  EXPECT_EQ((std::vector<std::string>{"explore early"}), fire());
  EXPECT_EQ(inFiveSeconds, firingsOf(isPushTimer));

  getDiscoveryRepository().startPushTimer();
  EXPECT_EQ(atOnce, firingsOf(isPushTimer)) << "in the place of the other";
  EXPECT_EQ((std::vector<std::string>{"explore early", "explore late"}), fire());
  EXPECT_EQ(inFiveSeconds, firingsOf(isPushTimer));
}

} // namespace
