#include "ozf/base/OzfObjTime.h"
#include "ozf/base/SystemError.h"
#include "ozf/orb/Orb.h"
#include "ozf/sync/AutoDereference.h"
#include "ozf/sync/OZFBlockUntil.h"
#include "ozf/sync/OZFRefAceEvent.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ProbeServant.h"

#include <ace/Reactor.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

class Handler : public OZFRefAceEvent
{
public:
  int handle_timeout(ACE_Time_Value const& now, void const*) override
  {
    thread = std::this_thread::get_id();
    told = now.sec();
    ++fired;
    return action ? action() : 0;
  }
  // Set before the handler is scheduled.
  std::function<int()> action;

  std::thread::id thread;
  std::atomic<std::int64_t> told{0};
  std::atomic<int> fired{0};
};

using HandlerPtr = AutoDereference<Handler>;

HandlerPtr makeHandler(std::function<int()> action = {})
{
  HandlerPtr handler(new Handler);
  handler->action = std::move(action);
  return handler;
}

// Whether all threads of the process but this one sleep.
bool othersSleep()
{
  for (auto const& thread : std::filesystem::directory_iterator("/proc/self/task"))
  {
    if (thread.path().filename() == std::to_string(gettid()))
      continue;
    std::string line;
    std::getline(std::ifstream(thread.path() / "stat"), line);
    // Behind its name, which is in parentheses.
    if (line.find(") S ") == std::string::npos)
      return false;
  }
  return true;
}

class OrbReactorTest : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(orb.init());
    ASSERT_EQ(orb.run(0), 0);
  }
  void schedule(HandlerPtr const& handler, ACE_Time_Value const& delay,
                ACE_Time_Value const& interval = ACE_Time_Value::zero)
  {
    ASSERT_NE(orb.getReactor()->schedule_timer(handler.get(), nullptr, delay, interval), -1);
  }
  // The loop is in it until the gate is opened.
  HandlerPtr holdUp(Gate& gate)
  {
    HandlerPtr handler = makeHandler(
        [&gate]
        {
          gate.pass();
          return 0;
        });
    schedule(handler, ACE_Time_Value::zero);
    EXPECT_TRUE(gate.awaitArrival());
    return handler;
  }

  ProductRoot root{""};
  Orb orb{1, "", "reacting", 1, 16};
};

} // namespace

TEST_F(OrbReactorTest, firesAfterTheDelayOnAThreadOfItsOwn)
{
  auto const handler = makeHandler();
  auto const start = std::chrono::steady_clock::now();
  schedule(handler, ACE_Time_Value(0, 200000));
  ASSERT_TRUE(eventually([&] { return handler->fired > 0; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(199));
  EXPECT_NE(handler->thread, std::this_thread::get_id());
  auto const first = handler->thread;
  schedule(handler, ACE_Time_Value::zero);
  ASSERT_TRUE(eventually([&] { return handler->fired > 1; }));
  EXPECT_EQ(handler->thread, first);
}

TEST_F(OrbReactorTest, aTimerWithoutIntervalFiresOnceAndIsReleased)
{
  auto handler = makeHandler();
  schedule(handler, ACE_Time_Value::zero);
  ASSERT_TRUE(eventually([&] { return handler->fired > 0; }));
  OZFBlockUntil barrier;
  barrier.add(*handler);
  handler.reset();
  barrier.wait();
}

TEST_F(OrbReactorTest, handlersAreToldTheWallClock)
{
  auto const handler = makeHandler();
  auto const before = OzfObjTime::now().seconds();
  schedule(handler, ACE_Time_Value::zero);
  ASSERT_TRUE(eventually([&] { return handler->fired > 0; }));
  EXPECT_GE(handler->told, before);
  EXPECT_LE(handler->told, OzfObjTime::now().seconds());
}

TEST_F(OrbReactorTest, anExceptionOfAHandlerIsLoggedAndTheLoopGoesOn)
{
  LogCapture log(1);
  auto thrower = makeHandler([]() -> int { throw std::runtime_error("handler broke"); });
  schedule(thrower, ACE_Time_Value::zero);
  ASSERT_TRUE(eventually([&] { return log.text().find("handler broke") != std::string::npos; }));
  EXPECT_TRUE(log.has(1, "OrbReactor::loop", "Caught exception in an event handler: handler broke"))
      << log.text();
  auto const handler = makeHandler();
  schedule(handler, ACE_Time_Value::zero);
  EXPECT_TRUE(eventually([&] { return handler->fired > 0; }));
  // The reference that the reactor held while the handler ran came back.
  EXPECT_TRUE(eventually([&] { return thrower->referenceCount() == 1; }));
}

TEST_F(OrbReactorTest, aFailedAssertionOfAHandlerLeavesTheLoopRunning)
{
  auto const thrower = makeHandler(
      []() -> int
      {
        OZF_ASSERT(false, "NULL != exp", "OrbReactorTest", "Handler::handle_timeout");
        return 0;
      });
  schedule(thrower, ACE_Time_Value::zero);
  ASSERT_TRUE(eventually([&] { return thrower->fired > 0; }));
  auto const handler = makeHandler();
  schedule(handler, ACE_Time_Value::zero);
  EXPECT_TRUE(eventually([&] { return handler->fired > 0; }));
}

TEST_F(OrbReactorTest, aCancelledTimerDoesNotFire)
{
  auto const cancelled = makeHandler();
  auto const later = makeHandler();
  schedule(cancelled, ACE_Time_Value(0, 200000));
  EXPECT_EQ(orb.getReactor()->cancel_timer(cancelled.get()), 1);
  schedule(later, ACE_Time_Value(0, 300000));
  ASSERT_TRUE(eventually([&] { return later->fired > 0; }));
  EXPECT_EQ(cancelled->fired, 0);
  EXPECT_EQ(cancelled->referenceCount(), 1);
}

TEST_F(OrbReactorTest, shutdownWaitsForARunningHandlerAndEndsTheTimers)
{
  Gate gate;
  std::atomic<bool> finished{false};
  auto const running = makeHandler(
      [&]
      {
        gate.pass();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        finished = true;
        return 0;
      });
  auto const pending = makeHandler();
  auto const repeating = makeHandler();
  schedule(repeating, ACE_Time_Value::zero, ACE_Time_Value(0, 1000));
  ASSERT_TRUE(eventually([&] { return repeating->fired > 2; }));
  schedule(pending, ACE_Time_Value(3600));
  schedule(running, ACE_Time_Value::zero);
  ASSERT_TRUE(gate.awaitArrival());
  gate.open();
  orb.shutdown();
  EXPECT_TRUE(finished);
  EXPECT_EQ(orb.getReactor(), nullptr);
  int const fired = repeating->fired;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(repeating->fired, fired);
  // Nothing is left in the queue that is gone.
  EXPECT_EQ(pending->referenceCount(), 1);
  EXPECT_EQ(repeating->referenceCount(), 1);
}

TEST_F(OrbReactorTest, isHeldUpByAHandlerUntilAnotherThreadRelievesIt)
{
  using std::chrono::milliseconds;
  using std::chrono::seconds;
  EXPECT_TRUE(orb.isReactorTurning(seconds(20)));
  Gate gate;
  auto const held = holdUp(gate);
  EXPECT_FALSE(orb.isReactorTurning(milliseconds(50)));

  ASSERT_TRUE(orb.relieveReactor());
  EXPECT_TRUE(orb.isReactorTurning(seconds(20)));
  auto const next = makeHandler();
  schedule(next, ACE_Time_Value::zero);
  EXPECT_TRUE(eventually([&] { return next->fired > 0; }));
  EXPECT_NE(next->thread, held->thread);

  gate.open();
  // The relieved thread is gone from the loop: whoever turns it is the other one.
  for (int i = 0; i < 20; ++i)
  {
    auto const later = makeHandler();
    schedule(later, ACE_Time_Value::zero);
    ASSERT_TRUE(eventually([&] { return later->fired > 0; }));
    EXPECT_EQ(later->thread, next->thread);
  }
  ASSERT_TRUE(orb.relieveReactor());
  EXPECT_TRUE(orb.isReactorTurning(seconds(20)));
  orb.shutdown();
}

TEST_F(OrbReactorTest, aThreadThatIsRelievedAsItWaitsTakesNoEventFromTheNext)
{
  auto const relieveWaiting = [this]
  { return eventually(othersSleep) && orb.relieveReactor() && eventually(othersSleep); };
  ASSERT_TRUE(relieveWaiting());
  EXPECT_TRUE(orb.isReactorTurning(std::chrono::seconds(20)));
  ASSERT_TRUE(relieveWaiting());
  orb.shutdown();
}

TEST_F(OrbReactorTest, countsAsTurningAsLongAsAHandlerMayTake)
{
  Gate gate;
  auto const held = makeHandler(
      [&]
      {
        orb.allowReactor(std::chrono::hours(1));
        gate.pass();
        return 0;
      });
  schedule(held, ACE_Time_Value::zero);
  ASSERT_TRUE(gate.awaitArrival());
  EXPECT_TRUE(orb.isReactorTurning(std::chrono::milliseconds(1)));
  gate.open();
  orb.shutdown(); // while there is a gate
}

TEST_F(OrbReactorTest, theEndOfTheOrbAnswersWhoAsksWhetherItTurns)
{
  Gate gate;
  auto const held = holdUp(gate);
  auto const turning =
      std::async(std::launch::async, [&] { return orb.isReactorTurning(std::chrono::minutes(3)); });
  auto const end = std::async(std::launch::async, [&] { orb.shutdown(); });
  EXPECT_TRUE(eventually(
      [&] { return turning.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  gate.open();
  end.wait();
}

TEST(OrbReactorDescriptorsTest, worksWithMoreThanAThousandDescriptorsOpen)
{
  ProductRoot const root("");
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GE(limit.rlim_max, 2048U) << "this machine does not allow enough open files";
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<UniqueFd> open;
  while (open.size() < 1200)
    open.emplace_back(eventfd(0, EFD_CLOEXEC));
  ASSERT_TRUE(open.back().valid());

  Orb orb(1, "", "crowded", 1, 16);
  ASSERT_TRUE(orb.init());
  ASSERT_EQ(orb.run(0), 0);
  auto const handler = makeHandler();
  ASSERT_NE(orb.getReactor()->schedule_timer(handler.get(), nullptr, ACE_Time_Value::zero), -1);
  EXPECT_TRUE(eventually([&] { return handler->fired > 0; }));
}
