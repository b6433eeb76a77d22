#include "ozf/sync/OZFRefAceEvent.h"

#include "ozf/sync/AutoDereference.h"

#include <ace/Reactor.h>
#include <ace/Select_Reactor.h>
#include <gtest/gtest.h>
#include <memory>

using namespace Quillon::Tessarine::Ozf;

namespace
{

int timersAlive = 0;
int fired = 0;

class Timer : public OZFRefAceEvent
{
public:
  Timer() { ++timersAlive; }

  int handle_timeout(ACE_Time_Value const&, void const*) override
  {
    ++fired;
    countWhileRunning = referenceCount();
    return 0;
  }

  long countWhileRunning = 0;

protected:
  ~Timer() override { --timersAlive; }
};

// A reactor of the test's own, run by hand until nothing is left to do.
class OZFRefAceEventTest : public testing::Test
{
protected:
  OZFRefAceEventTest() : m_reactor(new ACE_Select_Reactor, true) { fired = timersAlive = 0; }

  long schedule(Timer& timer, ACE_Time_Value const& delay, ACE_Time_Value const& interval = {})
  {
    return m_reactor.schedule_timer(&timer, nullptr, delay, interval);
  }

  void runUntilFired(int times)
  {
    ACE_Time_Value left(30);
    while (fired < times && left > ACE_Time_Value::zero)
      m_reactor.handle_events(left);
    ASSERT_EQ(fired, times);
  }

  ACE_Reactor m_reactor;
};

} // namespace

TEST_F(OZFRefAceEventTest, AceCountsWithTheFrameworksCount)
{
  AutoDereference<Timer> timer(new Timer);
  ACE_Event_Handler& handler = *timer;
  EXPECT_EQ(handler.add_reference(), 2);
  EXPECT_EQ(timer->referenceCount(), 2);
  EXPECT_EQ(handler.remove_reference(), 1);
  EXPECT_EQ(timer->referenceCount(), 1);
  EXPECT_EQ(handler.reference_counting_policy().value(),
            ACE_Event_Handler::Reference_Counting_Policy::ENABLED);
}

TEST_F(OZFRefAceEventTest, ARegisteredTimerHoldsAReferenceUntilItFired)
{
  AutoDereference<Timer> timer(new Timer);
  ASSERT_NE(schedule(*timer, ACE_Time_Value(0, 1000)), -1);
  EXPECT_EQ(timer->referenceCount(), 2);
  runUntilFired(1);
  EXPECT_GE(timer->countWhileRunning, 2);
  EXPECT_EQ(timer->referenceCount(), 1);
}

TEST_F(OZFRefAceEventTest, CancellingGivesTheReferenceBack)
{
  AutoDereference<Timer> timer(new Timer);
  long const id = schedule(*timer, ACE_Time_Value(3600));
  ASSERT_NE(id, -1);
  EXPECT_EQ(timer->referenceCount(), 2);
  EXPECT_EQ(m_reactor.cancel_timer(id), 1);
  EXPECT_EQ(timer->referenceCount(), 1);
  EXPECT_EQ(fired, 0);
}

TEST_F(OZFRefAceEventTest, AHandlerThatOnlyTheTimerHoldsLivesUntilItFired)
{
  {
    AutoDereference<Timer> const timer(new Timer);
    ASSERT_NE(schedule(*timer, ACE_Time_Value(0, 1000)), -1);
  }
  EXPECT_EQ(timersAlive, 1);
  runUntilFired(1);
  EXPECT_EQ(timersAlive, 0);
}

TEST_F(OZFRefAceEventTest, ARepeatedTimerKeepsItsReference)
{
  AutoDereference<Timer> timer(new Timer);
  long const id = schedule(*timer, ACE_Time_Value(0, 1000), ACE_Time_Value(0, 1000));
  ASSERT_NE(id, -1);
  runUntilFired(3);
  EXPECT_EQ(timer->referenceCount(), 2);
  m_reactor.cancel_timer(id);
  EXPECT_EQ(timer->referenceCount(), 1);
}

TEST_F(OZFRefAceEventTest, TheReactorLetsGoOfItsTimersWhenItGoes)
{
  auto reactor = std::make_unique<ACE_Reactor>(new ACE_Select_Reactor, true);
  AutoDereference<Timer> timer(new Timer);
  ASSERT_NE(reactor->schedule_timer(timer.get(), nullptr, ACE_Time_Value(3600)), -1);
  reactor.reset();
  EXPECT_EQ(timer->referenceCount(), 1);
}
