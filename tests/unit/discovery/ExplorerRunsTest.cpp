#include "discovery/ExplorerRuns.h"

#include "discovery/DiscDBMem.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"
#include "tests/unit/discovery/RepositoryTesting.h"

#include <future>

using namespace tqtest;

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds LONG(60);

std::shared_ptr<ExplorerRecord> declared(ExplorerRuns& runs, std::string const& authority,
                                         ExplorerRecord::Kind kind = ExplorerRecord::PUSH,
                                         void const* explorer = nullptr)
{
  return runs.declare({kind, authority, AT_TQUCLIENT, "s", 1, "library", explorer});
}

TEST(ExplorerRunsTest, ARecordTellsOfItsLastRunAndCountsAll)
{
  ExplorerRuns runs;
  auto const record = declared(runs, "a");
  EXPECT_EQ("a of library", record->name());
  EXPECT_EQ("", record->now().result);
  EXPECT_TRUE(record->now().lastRun.isZero());
  OzfObjTime const before = OzfObjTime::now();
  {
    ExplorerRun run(record, LONG);
    EXPECT_EQ(ExplorerRecord::RUNNING, record->now().state);
    std::this_thread::sleep_for(milliseconds(3));
    run.finish("success", true);
    EXPECT_FALSE(run.end());
  }
  ExplorerRecord::Now now = record->now();
  EXPECT_EQ(ExplorerRecord::IDLE, now.state);
  EXPECT_EQ("success", now.result);
  EXPECT_TRUE(now.well);
  EXPECT_TRUE(now.lastRun >= before);
  EXPECT_GE(now.took->count(), 3000);
  EXPECT_EQ(1u, now.runs);
  EXPECT_EQ(0u, now.failures);
  {
    ExplorerRun const run(record, LONG); // as when it throws
  }
  now = record->now();
  EXPECT_FALSE(now.well);
  EXPECT_EQ(2u, now.runs);
  EXPECT_EQ(1u, now.failures);
}

TEST(ExplorerRunsTest, TheLastRunThatWasInOrderIsKnownAndWhatCameAfterIt)
{
  ExplorerRuns runs;
  auto const record = declared(runs, "a", ExplorerRecord::SCRIPT);
  EXPECT_TRUE(record->now().lastSuccess.isZero());
  auto const runOnce = [&](bool well)
  {
    std::this_thread::sleep_for(milliseconds(1)); // so that no two begin at the same moment
    ExplorerRun run(record, LONG);
    run.finish(well ? "success" : "failed", well, 7);
    return run.began();
  };
  OzfObjTime const first = runOnce(true);
  EXPECT_EQ(first, record->now().lastSuccess);
  EXPECT_EQ(7, record->now().memory);
  OzfObjTime const second = runOnce(false);
  EXPECT_EQ(second, record->now().lastRun);
  EXPECT_EQ(first, record->now().lastSuccess);

  OzfObjTime const third = runOnce(true);
  record->amend(first, "of old", false);
  EXPECT_EQ("success", record->now().result) << "another run has ended since";
  for (int i = 0; i < 2; ++i)
    record->amend(third, "not stored", false);
  EXPECT_EQ("not stored", record->now().result);
  EXPECT_FALSE(record->now().well);
  EXPECT_EQ(2u, record->now().failures) << "a run fails once";
  EXPECT_EQ(first, record->now().lastSuccess);
  record->amend(third, "success", true);
  EXPECT_EQ(third, record->now().lastSuccess);
  EXPECT_EQ(3u, record->now().runs);
}

TEST(ExplorerRunsTest, TheMemoryThatARunAddsIsKept)
{
  constexpr std::size_t SIZE = 64 << 20;
  ExplorerRuns runs;
  auto const record = declared(runs, "a");
  std::unique_ptr<char[]> memory;
  {
    ExplorerRun run(record, LONG);
    memory.reset(new char[SIZE]);
    std::fill_n(memory.get(), SIZE, 'x');
    run.finish("success", true);
  }
  EXPECT_GT(*record->now().memory, static_cast<std::int64_t>(SIZE / 2));
  EXPECT_EQ('x', memory[SIZE / 3]);
}

TEST(ExplorerRunsTest, ThoseThatNobodyKeepsAreNotListed)
{
  ExplorerRuns runs;
  auto const first = declared(runs, "first");
  auto second = declared(runs, "second");
  auto const third = declared(runs, "third");
  second.reset();
  auto const all = runs.all();
  ASSERT_EQ(2u, all.size());
  EXPECT_EQ(first, all[0]);
  EXPECT_EQ(third, all[1]);
}

TEST(ExplorerRunsTest, ARunThatOutlastsItsBudgetIsNamedOnceAndToldToItsOwner)
{
  LogCapture log;
  ExplorerRuns runs;
  int explorer = 0;
  auto const record = declared(runs, "slow", ExplorerRecord::PUSH, &explorer);
  auto const sameExplorer = declared(runs, "other name", ExplorerRecord::PUSH, &explorer);
  auto const another = declared(runs, "another");
  std::promise<std::thread::id> late;
  {
    ExplorerRun run(record, milliseconds(20), [&] { late.set_value(std::this_thread::get_id()); });
    EXPECT_TRUE(runs.mayRun(*record)) << "it is not late yet";
    auto told = late.get_future();
    ASSERT_EQ(std::future_status::ready, told.wait_for(LONG));
    EXPECT_NE(std::this_thread::get_id(), told.get());
    EXPECT_FALSE(runs.mayRun(*record));
    EXPECT_FALSE(runs.mayRun(*sameExplorer));
    EXPECT_TRUE(runs.mayRun(*another));
    EXPECT_EQ(ExplorerRecord::LATE, record->now().state);
    EXPECT_EQ("late", record->now().result);
    EXPECT_FALSE(record->now().lastRun.isZero());
    ASSERT_EQ(1u, runs.unfinished().size());
    EXPECT_TRUE(runs.unfinished()[0].late);
    run.finish("success", true);
    EXPECT_TRUE(run.end());
  }
  EXPECT_TRUE(runs.mayRun(*record));
  EXPECT_EQ("success", record->now().result);
  EXPECT_EQ(1u, record->now().lateRuns);
  EXPECT_TRUE(runs.unfinished().empty());
  EXPECT_EQ(2u, log.lines().size()) << log.text();
  EXPECT_TRUE(
      log.has(1, "ExplorerRuns::watch",
              "Explorer slow of library is late: it has been running for 0 seconds, and may for 0 "
              "seconds; it is not run again before it returns"))
      << log.text();
  EXPECT_TRUE(
      log.has(1, "ExplorerRun::end", "Explorer slow of library has returned after 0 seconds"))
      << log.text();
}

// An explorer on demand is asked by several at a time.
TEST(ExplorerRunsTest, ARunThatIsLateIsToldOfUntilItReturnsWhateverAnotherFinds)
{
  LogCapture log;
  ExplorerRuns runs;
  auto const record = declared(runs, "pull", ExplorerRecord::PULL);
  ExplorerRun other(record, LONG);
  std::promise<void> late;
  {
    ExplorerRun run(record, milliseconds(20), [&] { late.set_value(); });
    ASSERT_EQ(std::future_status::ready, late.get_future().wait_for(LONG));
    other.finish("success", true);
    EXPECT_FALSE(other.end());
    EXPECT_EQ(ExplorerRecord::LATE, record->now().state);
    EXPECT_EQ("late", record->now().result);
    EXPECT_FALSE(record->now().well);
    EXPECT_EQ(1u, record->now().runs);
    run.finish("failed", false);
  }
  EXPECT_EQ(ExplorerRecord::IDLE, record->now().state);
  EXPECT_EQ("failed", record->now().result);
  EXPECT_EQ(2u, record->now().runs);
}

TEST(ExplorerRunsTest, AStepWaitsForCollectionsThatAreNotLateAlone)
{
  ExplorerRuns& runs = getExplorerRuns(); // outlives a step that is left
  EXPECT_TRUE(runs.takeStep([] {}));
  auto const record = declared(runs, "pull", ExplorerRecord::PULL);
  auto const released = std::make_shared<std::promise<void>>();
  auto const end = released->get_future().share();
  {
    ExplorerRun const run(record, milliseconds(20));
    EXPECT_FALSE(runs.takeStep([end] { end.wait(); }));
  }
  std::thread later;
  {
    ExplorerRun const run(record, LONG);
    later = std::thread([released] { released->set_value(); });
    EXPECT_TRUE(runs.takeStep([end] { end.wait(); }));
  }
  later.join();
}

struct ExplorerBudgetTest : RepositoryTesting
{
};

TEST_F(ExplorerBudgetTest, TheBudgetIsConfiguredAndOnRequestNoLongerThanWhoAsksWaits)
{
  EXPECT_EQ(seconds(60), ExplorerRuns::budget());
  EXPECT_EQ(seconds(30), ExplorerRuns::budgetOnRequest());
  writeText(root / "etc/tq.conf", "EXPLORER_BUDGET_SECONDS = 5\n");
  Quillon::Tessarine::Ozf::reloadConfiguration();
  EXPECT_EQ(seconds(5), ExplorerRuns::budget());
  EXPECT_EQ(seconds(5), ExplorerRuns::budgetOnRequest());
}

TEST_F(ExplorerBudgetTest, WhatIsRegisteredIsDeclaredWithItsNamesAndItsRuns)
{
  TestRepository repository;
  CallList calls;
  AutoDereference<FakePull> const explorer(new FakePull("x", &calls));
  pull(repository, explorer.get(), 7, "subject", "authority");
  auto const entry = *repository.getPullExplorers()->begin();
  ASSERT_TRUE(entry->getRecord());
  ExplorerRecord::Description const& what = entry->getRecord()->description();
  EXPECT_EQ(ExplorerRecord::PULL, what.kind);
  EXPECT_EQ("authority", what.authority);
  EXPECT_EQ("subject", what.subject);
  EXPECT_EQ(7u, what.priority);
  AutoDereference<ExplorerQuery> const query(new ExplorerQuery(entry));
  AutoDereference<Discovery> const discovery(
      getDiscoveryMemDatbase()->newDiscovery(query, DQ_DISCOVERY_DATA));
  EXPECT_EQ(DS_SUCCESS, discovery->open(OM_READ, ""));
  EXPECT_EQ("success", entry->getRecord()->now().result);
  EXPECT_EQ(1u, entry->getRecord()->now().runs);
}

} // namespace
