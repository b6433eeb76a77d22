// Push explorers while the wall clock is set.

#include "discovery/DiscoveryRepositoryTimers.h"

#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace tqtest;

namespace
{

constexpr std::int64_t TODAY = 1800000000;
constexpr unsigned INTERVAL = 3600;

std::atomic<std::int64_t> wallSeconds{0};

class DiscoveryRepositoryTimersClockTest : public testing::Test
{
protected:
  void SetUp() override
  {
    OzfObjTime::setClock([] { return OzfObjTime(wallSeconds); });
    add(*m_paced, "paced");
    add(*m_hourly, "hourly");
  }
  void TearDown() override
  {
    m_host.stop();
    OzfObjTime::setClock(nullptr);
  }

  static void add(FakePush& explorer, std::string const& subject)
  {
    getDiscoveryRepository().registerExplorer(new Subject(subject), &explorer, 5,
                                              new Authority("a", AT_TQUCLIENT));
  }

  // How often it has run.
  long runs(std::string const& explorer)
  {
    auto const names = m_calls.names();
    return std::count(names.begin(), names.end(), "explore " + explorer);
  }

  // A pass that runs the explorer without an interval, unless that waits, too.
  bool pass()
  {
    long const before = runs("paced");
    getDiscoveryRepository().triggerPushTimer();
    return eventually([&] { return runs("paced") > before; }, std::chrono::seconds(20));
  }

  // Of that name because its delays are at most a second.
  Service m_host{"95b", "95b"};
  CallList m_calls;
  LogCapture m_log;
  AutoDereference<FakePush> m_paced{new FakePush("paced", &m_calls, 0)};
  AutoDereference<FakePush> m_hourly{new FakePush("hourly", &m_calls, INTERVAL)};
};

} // namespace

TEST_F(DiscoveryRepositoryTimersClockTest,
       ThoseThatRanBeforeItWasSetBackWaitForThatTimeAndTheirInterval)
{
  wallSeconds = TODAY;
  m_host.start();
  ASSERT_TRUE(eventually([&] { return runs("hourly") == 1; })) << m_log.text();
  m_paced->setLastExplorationTime(OzfObjTime(1));
  wallSeconds = TODAY - INTERVAL;
  ASSERT_TRUE(pass());
  wallSeconds = TODAY;
  ASSERT_TRUE(pass());
  EXPECT_EQ(runs("hourly"), 1);
  wallSeconds = TODAY + INTERVAL;
  ASSERT_TRUE(pass());
  EXPECT_EQ(runs("hourly"), 2);
}
