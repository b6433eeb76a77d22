#include "discovery/TimedExplorer.h"

#include "ozf/config/Configuration.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/explorers/ExplorerStore.h"

#include <functional>
#include <stdexcept>

using namespace ExplorerTesting;

namespace
{

class Example : public Explorers::TimedExplorer
{
public:
  explicit Example(std::function<DiscoveryStatus()> behaviour, PollingInterval interval = 60)
      : TimedExplorer(interval), m_behaviour(std::move(behaviour))
  {
  }

  char const* getExplorerName() const override { return "example"; }

  OzfObjTime expires; // of what the last run found

private:
  DiscoveryStatus run(Authority const&, Subject const&, CollectionAttributes const& attributes,
                      DiscoveryFactory const&) override
  {
    expires = attributes.getExpiresTime();
    return m_behaviour();
  }

  std::function<DiscoveryStatus()> m_behaviour;
};

AutoDereference<Example> example(std::function<DiscoveryStatus()> behaviour)
{
  return AutoDereference<Example>(new Example(std::move(behaviour)));
}

} // namespace

TEST(TimedExplorer, keepsTheTimeThatItIsGiven)
{
  auto const explorer = example([] { return DS_SUCCESS; });
  EXPECT_TRUE(explorer->getLastExplorationTime().isZero());
  explorer->setLastExplorationTime(OzfObjTime(7, 8));
  EXPECT_EQ(OzfObjTime(7, 8), explorer->getLastExplorationTime());
  EXPECT_EQ(60U, explorer->getPollingInterval());
}

TEST(TimedExplorer, takesAnotherIntervalAndExpiryFromTheConfiguration)
{
  Store store;
  auto const explorer = example([] { return DS_SUCCESS; });
  overrideConfiguration("EXPLORER_INTERVAL.example", "2h");
  overrideConfiguration("EXPLORER_EXPIRY.example", "1d");
  EXPECT_EQ(7200U, explorer->getPollingInterval());
  explore(*explorer, AT_TQUCLIENT, &store);
  auto const holds = explorer->expires.seconds() - OzfObjTime::now().seconds();
  EXPECT_GE(holds, 86400 - 5);
  EXPECT_LE(holds, 86400 + 1);
  overrideConfiguration("EXPLORER_INTERVAL.example", "3h");
  EXPECT_EQ(10800U, explorer->getPollingInterval()) << "the next time that it is asked";
  overrideConfiguration("EXPLORER_INTERVAL.example", "soon");
  EXPECT_EQ(60U, explorer->getPollingInterval());
}

TEST(TimedExplorer, aRunThatSucceedsAsksForNoRetry)
{
  Store store;
  auto const result = explore(*example([] { return DS_SUCCESS; }), AT_TQUCLIENT, &store);
  EXPECT_EQ(DS_SUCCESS, result.discStatus);
  EXPECT_EQ(0U, result.retryInterval);
}

TEST(TimedExplorer, aRunThatFailsReportsItsStatusAndItsInterval)
{
  Store store;
  auto const result = explore(*example([] { return DS_COM_ERROR; }), AT_TQUCLIENT, &store);
  EXPECT_EQ(DS_COM_ERROR, result.discStatus);
  EXPECT_EQ(60U, result.retryInterval);
}

TEST(TimedExplorer, aRunThatFailsIsDueAgainAfterAMinute)
{
  Store store;
  for (DiscoveryStatus const status : {DS_COM_ERROR, DS_OPEN_FAILED, DS_LOGIC_ERROR})
  {
    AutoDereference<Example> const explorer(new Example([=] { return status; }, 86400));
    explorer->setLastExplorationTime(OzfObjTime(1'000'000, 7));
    EXPECT_EQ(60U, explore(*explorer, AT_TQUCLIENT, &store).retryInterval);
    EXPECT_EQ(OzfObjTime(1'000'060, 7), explorer->getLastExplorationTime() + OzfObjTime(86400));
  }
}

TEST(TimedExplorer, aRunThatEndsWellOrMeetsDataOfHigherPriorityIsDueAfterTheInterval)
{
  Store store;
  for (DiscoveryStatus const status : {DS_SUCCESS, DS_DATA_EXISTS})
  {
    AutoDereference<Example> const explorer(new Example([=] { return status; }, 86400));
    explorer->setLastExplorationTime(OzfObjTime(1'000'000));
    explore(*explorer, AT_TQUCLIENT, &store);
    EXPECT_EQ(OzfObjTime(1'000'000), explorer->getLastExplorationTime());
  }
}

TEST(TimedExplorer, whatARunThrowsIsLoggedUnderTheExplorersName)
{
  Store store;
  LogCapture const log;
  auto const explorer =
      example([]() -> DiscoveryStatus { throw std::runtime_error("no such thing"); });
  EXPECT_EQ(DS_LOGIC_ERROR, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  EXPECT_TRUE(log.has(1, "TimedExplorer::explore", "Explorer example failed: no such thing"))
      << log.text();
}

TEST(TimedExplorer, anythingElseThatARunThrowsStaysInsideToo)
{
  Store store;
  LogCapture const log;
  auto const explorer = example([]() -> DiscoveryStatus { throw 42; });
  EXPECT_EQ(DS_LOGIC_ERROR, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  EXPECT_TRUE(log.has(1, "TimedExplorer::explore", "Explorer example failed")) << log.text();
}

TEST(TimedExplorer, withoutAFactoryNothingRuns)
{
  LogCapture const log;
  bool ran = false;
  auto const explorer = example(
      [&ran]
      {
        ran = true;
        return DS_SUCCESS;
      });
  EXPECT_EQ(DS_LOGIC_ERROR, explore(*explorer, AT_TQUCLIENT, nullptr).discStatus);
  EXPECT_FALSE(ran);
  EXPECT_TRUE(log.has(1, "TimedExplorer::explore",
                      "Explorer example was given no way to create discoveries"));
}
