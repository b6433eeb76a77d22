#include "discovery/DiscoveryRepositoryTimers.h"

#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include <ace/Reactor.h>
#include <gtest/gtest.h>

#include <atomic>

using namespace tqtest;

namespace
{

using std::chrono::seconds;

void registerPush(FakePush& explorer, std::string const& subject)
{
  getDiscoveryRepository().registerExplorer(new Subject(subject), &explorer, 5,
                                            new Authority("a", AT_TQUCLIENT));
}

// The number of seconds in the last "triggering push in N seconds".
int triggeredDelay(LogCapture const& log)
{
  std::string const text = log.text();
  std::string const words = "triggering push in ";
  auto const at = text.rfind(words);
  return at == std::string::npos ? -1 : atoi(text.c_str() + at + words.size());
}

// What a host of that name draws; the service is only there for its reactor.
int delayOf(std::string const& name)
{
  OzfHostname::overrideLocal(name);
  LogCapture log;
  getDiscoveryRepository().triggerPushTimer();
  return triggeredDelay(log);
}

TEST(DiscoveryRepositoryTimersTest, AnExplorerWithIntervalZeroRunsOnEveryPassOfFiveSeconds)
{
  Service host;
  CallList calls;
  std::vector<std::chrono::steady_clock::time_point> times;
  AutoDereference<FakePush> explorer(new FakePush("x", &calls, 0));
  explorer->onExplore = [&](auto const&...) { times.push_back(std::chrono::steady_clock::now()); };
  registerPush(*explorer, "s");
  host.start();
  auto const explorations = [](std::vector<std::string> const& names)
  { return std::count(names.begin(), names.end(), "explore x") >= 2; };
  ASSERT_TRUE(calls.waitFor(explorations, seconds(60)));
  host.stop();
  ASSERT_GE(times.size(), 2u);
  auto const gap = times[1] - times[0];
  EXPECT_GT(gap, std::chrono::milliseconds(4900));
  EXPECT_LT(gap, std::chrono::seconds(60)) << "a slow machine's five seconds";
}

TEST(DiscoveryRepositoryTimersTest, AnExplorationGetsTheAttributesOfTheRegistration)
{
  Service host;
  CallList calls;
  AutoDereference<FakePush> explorer(new FakePush("x", &calls, 100));
  std::unique_ptr<CollectionAttributes> seen;
  DiscoveryFactory* factory = nullptr;
  explorer->onExplore = [&](Authority const& authority, Subject const& subject,
                            CollectionAttributes const& attributes, DiscoveryFactory* given,
                            DiscoveryResult&)
  {
    EXPECT_EQ("a", authority.getName().str());
    EXPECT_EQ("s", subject.getName().str());
    seen = std::make_unique<CollectionAttributes>(attributes);
    factory = given;
  };
  registerPush(*explorer, "s");
  OzfObjTime const before = OzfObjTime::now();
  host.start();
  ASSERT_TRUE(calls.waitFor([](auto const& names) { return names.size() >= 2; }, seconds(60)));
  host.stop();
  OzfObjTime const after = OzfObjTime::now();
  ASSERT_TRUE(seen);
  EXPECT_EQ(CT_POINT_IN_TIME, seen->getType());
  EXPECT_EQ(CS_CENTRALREPOSITORY, seen->getStorage());
  EXPECT_EQ(OzfObjTime(100), seen->getValidityInterval());
  EXPECT_EQ(5u, seen->getPriority());
  EXPECT_TRUE(seen->getDiscoveryTime() >= before && seen->getDiscoveryTime() <= after);
  EXPECT_EQ(static_cast<DiscoveryFactory*>(&getDiscoveryRepository()), factory);
  EXPECT_TRUE(explorer->getLastExplorationTime() >= seen->getDiscoveryTime());
}

// Sets its context when it is started.
class ContextPush : public FakePush
{
public:
  using FakePush::FakePush;

  struct Context : OZFRefCounted
  {
  };
  Context const* made = nullptr;
  std::vector<OZFRefCounted const*> seen; // at start, at the runs and at stop
  std::vector<std::string> names;
  DiscoveryFactory* factory = nullptr;

  void startExploration(EngineContext const& engine, Authority const& authority,
                        Subject const& subject, AutoDereference<OZFRefCounted>& context,
                        DiscoveryFactory* given) override
  {
    note(authority, subject, context);
    auto* const own = new Context;
    made = own;
    context.reset(own);
    factory = given;
    FakePush::startExploration(engine, authority, subject, context, given);
  }
  void explore(Authority const& authority, Subject const& subject,
               CollectionAttributes const& attributes, AutoDereference<OZFRefCounted>& context,
               DiscoveryFactory* given, DiscoveryResult& result) override
  {
    note(authority, subject, context);
    FakePush::explore(authority, subject, attributes, context, given, result);
  }
  void stopExploration(Authority const& authority, Subject const& subject,
                       AutoDereference<OZFRefCounted>& context) override
  {
    note(authority, subject, context);
    FakePush::stopExploration(authority, subject, context);
  }

private:
  void note(Authority const& authority, Subject const& subject,
            AutoDereference<OZFRefCounted> const& context)
  {
    seen.push_back(context.get());
    names.push_back(authority.getName().str() + "/" + subject.getName().str());
  }
};

TEST(DiscoveryRepositoryTimersTest, AnExplorerKeepsItsContextFromItsStartToItsEnd)
{
  CallList calls; // outlives the service, whose end stops the explorer
  Service host;
  AutoDereference<ContextPush> explorer(new ContextPush("x", &calls, 3600));
  registerPush(*explorer, "s");
  host.start();
  ASSERT_TRUE(calls.waitFor([](auto const& names) { return names.size() >= 2; }, seconds(60)));
  host.stop();
  EXPECT_EQ((std::vector<std::string>{"start x", "explore x", "stop x"}), calls.names());
  ASSERT_NE(nullptr, explorer->made);
  EXPECT_EQ((std::vector<OZFRefCounted const*>{nullptr, explorer->made, explorer->made}),
            explorer->seen);
  EXPECT_EQ((std::vector<std::string>{"a/s", "a/s", "a/s"}), explorer->names);
  EXPECT_EQ(static_cast<DiscoveryFactory*>(&getDiscoveryRepository()), explorer->factory);
}

TEST(DiscoveryRepositoryTimersTest, AnExplorerIsSkippedUntilItsLastRunPlusItsInterval)
{
  Service host;
  CallList calls;
  AutoDereference<FakePush> future(new FakePush("future", &calls, 0));
  future->setLastExplorationTime(OzfObjTime::now() + OzfObjTime(3600));
  AutoDereference<FakePush> recent(new FakePush("recent", &calls, 3600));
  recent->setLastExplorationTime(OzfObjTime::now());
  AutoDereference<FakePush> due(new FakePush("due", &calls, 0));
  registerPush(*future, "1");
  registerPush(*recent, "2");
  registerPush(*due, "3");
  host.start();
  auto const explored = [](std::vector<std::string> const& names)
  { return std::count(names.begin(), names.end(), "explore due") == 1; };
  ASSERT_TRUE(calls.waitFor(explored, seconds(60)));
  host.stop();
  auto const names = calls.names();
  EXPECT_EQ(0, std::count(names.begin(), names.end(), "explore future"));
  EXPECT_EQ(0, std::count(names.begin(), names.end(), "explore recent"));
}

TEST(DiscoveryRepositoryTimersTest, AnExplorerThatThrowsIsLoggedAndTheOthersRun)
{
  Service host;
  CallList calls;
  AutoDereference<FakePush> broken(new FakePush("broken", &calls, 3600));
  broken->onExplore = [](auto const&...) { throw std::runtime_error("no luck"); };
  AutoDereference<FakePush> sound(new FakePush("sound", &calls, 3600));
  registerPush(*broken, "1");
  registerPush(*sound, "2");
  LogCapture log;
  host.start();
  auto const explored = [](std::vector<std::string> const& names)
  { return std::count(names.begin(), names.end(), "explore sound") == 1; };
  EXPECT_TRUE(calls.waitFor(explored, seconds(60)));
  host.stop();
  EXPECT_TRUE(log.has(1, "ExplorerPushTimer::handle_timeout",
                      "Explorer broken threw an exception: no luck"))
      << log.text();
}

TEST(DiscoveryRepositoryTimersTest, ShutdownLetsTheCurrentExplorerFinishAndStartsNoOther)
{
  Service host;
  CallList calls;
  std::mutex mutex;
  std::condition_variable changed;
  bool mayFinish = false;
  AutoDereference<FakePush> slow(new FakePush("slow", &calls, 0));
  slow->onExplore = [&](auto const&...)
  {
    std::unique_lock guard(mutex);
    changed.wait(guard, [&] { return mayFinish; });
    calls.add("slow finished");
  };
  AutoDereference<FakePush> next(new FakePush("next", &calls, 0));
  registerPush(*slow, "1");
  registerPush(*next, "2");
  host.start();
  ASSERT_TRUE(calls.waitFor(
      [](auto const& names)
      { return std::find(names.begin(), names.end(), "explore slow") != names.end(); },
      seconds(60)));
  std::thread stopper([&] { host.stop(); });
  ASSERT_TRUE(eventually([] { return getDiscoveryRepository().isShuttingDown(); }));
  {
    std::lock_guard guard(mutex);
    mayFinish = true;
    changed.notify_all();
  }
  stopper.join();
  EXPECT_EQ((std::vector<std::string>{"start slow", "start next", "explore slow", "slow finished",
                                      "stop slow", "stop next"}),
            calls.names());
}

TEST(DiscoveryRepositoryTimersTest, TriggeringBeforeThereIsAPushTimerDoesNothing)
{
  Service host;
  LogCapture log;
  getDiscoveryRepository().triggerPushTimer();
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST(DiscoveryRepositoryTimersTest, TheTriggeredDelayDependsOnTheLeadingDigitsAlone)
{
  Service host;
  host.start();
  int const web = delayOf("web1");
  EXPECT_EQ(web, delayOf("db2"));
  int const seventeen = delayOf("17a");
  EXPECT_EQ(seventeen, delayOf("17b"));
  srand(0);
  EXPECT_EQ(rand() % 60, web);
  srand(17);
  EXPECT_EQ(rand() % 60, seventeen);
}

TEST(DiscoveryRepositoryTimersTest, AShutDownTimerIsNeverScheduledAgain)
{
  CallList calls; // outlives the service, whose end stops the explorer
  Service host;
  host.start();
  AutoDereference<FakePush> explorer(new FakePush("x", &calls, 0));
  registerPush(*explorer, "s");
  AutoDereference<DiscoveryRepository::ExplorerPushTimer> timer(
      new DiscoveryRepository::ExplorerPushTimer(getDiscoveryRepository(),
                                                 getDiscoveryRepository().getPushExplorers()));
  timer->shutdown();
  timer->schedule(ACE_Time_Value::zero);
  EXPECT_EQ(1, timer->referenceCount()) << "the reactor holds none";
}

TEST(DiscoveryRepositoryTimersTest, SchedulingReplacesTheFiringThatWasSet)
{
  Service host;
  host.start();
  AutoDereference<DiscoveryRepository::ExplorerPushTimer> timer(
      new DiscoveryRepository::ExplorerPushTimer(getDiscoveryRepository(),
                                                 getDiscoveryRepository().getPushExplorers()));
  timer->schedule(ACE_Time_Value(3600));
  timer->schedule(ACE_Time_Value(3600));
  EXPECT_EQ(2, timer->referenceCount()) << "one registration";
  timer->cancel();
  EXPECT_EQ(1, timer->referenceCount());
}

TEST(DiscoveryRepositoryTimersTest, WithoutAnOrbThePushTimerSaysSoAndDoesNotReArm)
{
  Service host;
  host.start();
  AutoDereference<DiscoveryFramework> withoutOrb(
      new DiscoveryFramework("", DST_GENERIC, nullptr, false));
  LogCapture log;
  getDiscoveryRepository().setDiscoveryFramework(withoutOrb.get());
  AutoDereference<DiscoveryRepository::ExplorerPushTimer> timer(
      new DiscoveryRepository::ExplorerPushTimer(getDiscoveryRepository(),
                                                 getDiscoveryRepository().getPushExplorers()));
  timer->handle_timeout(ACE_Time_Value::zero, nullptr);
  EXPECT_TRUE(log.has(1, "ExplorerPushTimer::handle_timeout", "Cannot get instance of ORB"))
      << log.text();
  EXPECT_EQ(1, timer->referenceCount()) << "not scheduled";
  getDiscoveryRepository().setDiscoveryFramework(&host.framework());
}

TEST(DiscoveryRepositoryTimersTest, WithoutAMasterNameTheRegisterTimerTriesAgainLater)
{
  Service host("4a", "elsewhere"); // 4a draws a first delay of at most a second
  CallList calls;
  AutoDereference<FakePush> explorer(new FakePush("x", &calls, 0));
  registerPush(*explorer, "s");
  host.configure("");
  LogCapture log;
  host.start();
  EXPECT_TRUE(eventually(
      [&]
      {
        return log.has(1, "ExplorerRegisterTimer::handle_timeout",
                       "Cannot find master server name, cannot register explorers");
      }))
      << log.text();
  host.stop();
  EXPECT_EQ((std::vector<std::string>{"start x", "stop x"}), calls.names())
      << "the push timer never starts";
}

TEST(DiscoveryRepositoryTimersTest, AMasterThatDoesNotAnswerIsTriedAgainLater)
{
  Service host("4a", "elsewhere");
  writeText(host.root() / "etc/tq.conf",
            readText(host.root() / "etc/tq.conf") + "HOST_ADDRESS.elsewhere = 127.0.0.2\n");
  reloadConfiguration();
  LogCapture log;
  host.start();
  EXPECT_TRUE(eventually(
      [&]
      {
        return log.has(1, "ExplorerRegisterTimer::handle_timeout",
                       "Failed to connect to discovery service on the master, retrying later");
      }))
      << log.text();
  EXPECT_TRUE(log.has(1, "ExplorerRegisterTimer::handle_timeout",
                      "Registering 0 explorers with master server"));
  EXPECT_TRUE(log.has(1, "connectToRemoteDS", "Failed to connect to remote discovery service."))
      << log.text();
}

TEST(DiscoveryRepositoryTimersTest, TheRegisterTimerAnnouncesAndThenStartsThePushTimer)
{
  // Not the master by its configuration at the start; then the master's name
  // is made to lead back here, so that one process plays both.
  CallList calls; // outlives the service, whose end stops the explorers
  Service host("4a", "elsewhere");
  host.configure("4a");
  AutoDereference<FakePull> puller(new FakePull("puller", &calls));
  getDiscoveryRepository().registerExplorer(new Subject("subj"), puller.get(), 70000,
                                            new Authority("auth", AT_TQUCLIENT), false);
  AutoDereference<FakePush> pusher(new FakePush("pusher", &calls, 3600));
  registerPush(*pusher, "other");
  LogCapture log;
  host.start();
  EXPECT_TRUE(calls.waitFor(
      [](auto const& names)
      { return std::find(names.begin(), names.end(), "explore pusher") != names.end(); },
      seconds(60)))
      << log.text();
  EXPECT_TRUE(log.has(1, "ExplorerRegisterTimer::handle_timeout",
                      "Registering 1 explorers with master server"));
  EXPECT_TRUE(log.has(1, "ExplorerRegisterTimer::handle_timeout",
                      "Successfully registered explorers with master"));
  // 70000 does not fit 16 bits: what is left of it is 4464.
  EXPECT_NE(std::string::npos,
            log.text().find("Registered explorer: 4a DiscoveryService subj auth 4464"))
      << log.text();
}

} // namespace
