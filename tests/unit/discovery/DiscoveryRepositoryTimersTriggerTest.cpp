// How far, and how often, the push timer can be put off from outside.

#include "discovery/DiscoveryRepositoryTimers.h"

#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include <ace/Reactor.h>
#include <ace/Timer_Queue.h>

#include <vector>

using namespace tqtest;

namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using TriggeredTimer = DiscoveryRepository::ExplorerPushTimer;
using Steady = std::chrono::steady_clock;

constexpr int LONG_DELAY = 50; // more than a pass that re-arms itself waits

Steady::time_point triggerTime{};

struct TriggerTest : testing::Test
{
  ACE_Reactor still; // nobody runs it: its timers can be looked at in peace
  Service host;
  LogCapture log;
  AutoDereference<TriggeredTimer> timer;

  void SetUp() override
  {
    host.start();
    setAceReactor(&still);
    triggerTime = Steady::time_point(std::chrono::hours(1));
    TriggeredTimer::setClock([] { return triggerTime; });
    timer.reset(
        new TriggeredTimer(getDiscoveryRepository(), std::make_shared<ExplorerSet const>()));
  }
  void TearDown() override
  {
    timer->shutdown();
    TriggeredTimer::setClock(&Steady::now);
    setAceReactor(host.orb().getReactor());
  }

  void fire() { timer->handle_timeout(ACE_Time_Value::zero, nullptr); }
  bool trigger(int delay) { return timer->trigger(ACE_Time_Value(delay)); }

  // When the timer fires, on the reactor's clock; more than one is a failure.
  ACE_Time_Value due()
  {
    ACE_Time_Value found;
    int count = 0;
    auto& entry = still.timer_queue()->iter();
    for (entry.first(); !entry.isdone(); entry.next())
      if (entry.item()->get_type() == timer.get())
      {
        found = entry.item()->get_timer_value();
        ++count;
      }
    EXPECT_EQ(1, count);
    return found;
  }
  // In so many seconds, give or take the time that the test has taken.
  bool isDueIn(long delay)
  {
    auto const left = (due() - still.timer_queue()->gettimeofday()).sec();
    return left <= delay && left > delay - 30;
  }
};

} // namespace

TEST_F(TriggerTest, ATriggerMovesAPassAndFurtherOnesLeaveIt)
{
  timer->schedule(ACE_Time_Value(5));
  EXPECT_TRUE(trigger(LONG_DELAY));
  auto const first = due();
  EXPECT_TRUE(isDueIn(LONG_DELAY));
  for (int i = 0; i < 3; ++i)
  {
    EXPECT_FALSE(trigger(LONG_DELAY));
    EXPECT_EQ(first, due()) << "it would never come if each call put it off";
  }
}

TEST_F(TriggerTest, ForFiveMinutesAfterATriggeredPassNoneIsPutOff)
{
  timer->schedule(ACE_Time_Value(5));
  ASSERT_TRUE(trigger(LONG_DELAY));
  fire();
  EXPECT_TRUE(isDueIn(5)) << "it goes on with its passes";
  auto const pass = due();
  EXPECT_FALSE(trigger(LONG_DELAY));
  EXPECT_EQ(pass, due());
  triggerTime += std::chrono::minutes(5) - std::chrono::seconds(1);
  EXPECT_FALSE(trigger(LONG_DELAY));
  triggerTime += std::chrono::seconds(1);
  EXPECT_TRUE(trigger(LONG_DELAY));
  EXPECT_TRUE(isDueIn(LONG_DELAY));
}

TEST_F(TriggerTest, APassMayBeBroughtForwardAtAnyTime)
{
  timer->schedule(ACE_Time_Value(5));
  ASSERT_TRUE(trigger(LONG_DELAY));
  fire();
  EXPECT_TRUE(trigger(1));
  EXPECT_TRUE(isDueIn(1));
}

TEST_F(TriggerTest, PassesThatNobodyAskedForLeaveTheNextTriggerItsWay)
{
  timer->schedule(ACE_Time_Value(5));
  fire();
  EXPECT_TRUE(trigger(LONG_DELAY));
  EXPECT_TRUE(isDueIn(LONG_DELAY));
}

TEST_F(TriggerTest, TheLogTellsWhetherAPassWasMoved)
{
  DiscoveryRepository& repository = getDiscoveryRepository();
  repository.startPushTimer();
  repository.triggerPushTimer();
  std::string const left = "leaving the next push where it is, which is sooner";
  EXPECT_NE(std::string::npos, log.text().find("triggering push in ")) << log.text();
  EXPECT_FALSE(log.has(4, "DiscoveryRepository::triggerPushTimer", left)) << log.text();
  repository.triggerPushTimer();
  EXPECT_TRUE(log.has(4, "DiscoveryRepository::triggerPushTimer", left)) << log.text();
}
