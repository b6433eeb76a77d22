// What tqpublish makes of servers and masters that go away.

#include "tests/system/publish/PublishTesting.h"

using namespace std::chrono_literals;
using namespace tqtest;

TEST(PublishAwayTest, PostgresThatIsAwayIsWaitedForAndCaughtUpWith)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));
  ASSERT_TRUE(publishing.postgres().kill());

  ASSERT_TRUE(publishing.start());
  ASSERT_TRUE(publishing.process().awaitError("cannot be kept current, which is tried again"));
  EXPECT_THAT(publishing.log(), HasSubstr("PostgreSQL cannot be reached: "));
  ASSERT_TRUE(publishing.postgres().start());
  EXPECT_TRUE(publishing.awaitSql("select count(*) from item", "1"));
  EXPECT_TRUE(publishing.process().awaitError("The database is current again"));

  // Now in the middle of its work.
  ASSERT_TRUE(publishing.postgres().kill());
  storeIn(service, "web2", "probe", itemsWith({{"a", "2"}}));
  ASSERT_TRUE(
      eventually([&] { return occurrences(publishing.log(), "which is tried again") >= 2; }))
      << publishing.log();
  ASSERT_TRUE(publishing.postgres().start());
  EXPECT_TRUE(publishing.awaitSql("select count(*) from item", "2"));
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

TEST(PublishAwayTest, AMasterThatIsAwayKeepsItsRowsAndIsMarkedStale)
{
  LiveService service;
  // Nobody serves at the second one's address.
  Publishing publishing(service, "PUBLISH_MASTERS = tqtestmaster\nPUBLISH_MASTERS = other\n"
                                 "HOST_ADDRESS.other = 127.0.0.2\n");
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));
  ASSERT_TRUE(publishing.start());
  EXPECT_TRUE(publishing.awaitSql("select count(*) from known", "1"));
  EXPECT_TRUE(publishing.awaitSql("select name, stale, heard is null, reason is null from master "
                                  "order by name",
                                  "other|t|t|f\ntqtestmaster|f|f|t"));

  EXPECT_EQ(service.stop(), 0);
  EXPECT_TRUE(publishing.awaitSql("select stale, subject, gone is null from discovery d "
                                  "join master m on m.id = d.master_id",
                                  "t|web1|t"));
  EXPECT_THAT(publishing.log(), HasSubstr("The master tqtestmaster does not give its list: "));
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(publishing.awaitSql(
      "select stale, reason is null from master where heard is not null", "f|t"));
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();

  // A master that is not named any more is not taken for one that is there.
  service.configure();
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select stale, reason from master where name = 'other'"),
            "t|not followed any more");
}

// Wherever it was: what it does not answer any more is no payload that cannot be read.
TEST(PublishAwayTest, AMasterThatDiesWhileItIsReadIsAwayAndKeepsWhatItHadSaid)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  constexpr int RECORDS = 300;
  for (int i = 0; i < RECORDS; ++i)
    placeIn(service, "web" + std::to_string(i), "probe", itemsWith({{"a", std::to_string(i)}}));
  ASSERT_TRUE(publishing.start());
  ASSERT_TRUE(eventually(
      [&] { return occurrences(publishing.log(), "Service: DiscoveryService") >= RECORDS / 4; }))
      << publishing.log();
  EXPECT_EQ(service.stop(SIGKILL), 128 + SIGKILL);
  EXPECT_TRUE(publishing.awaitSql("select stale, reason is null from master", "t|f"));
  EXPECT_EQ(publishing.sql("select count(*) from discovery where unread or problem is not null"),
            "0")
      << publishing.log();
  EXPECT_EQ(publishing.unsound(), Publishing::SOUND);
  ASSERT_TRUE(service.start());
  EXPECT_TRUE(publishing.awaitSql("select count(*), count(distinct facts) from item",
                                  std::to_string(RECORDS) + '|' + std::to_string(RECORDS)));
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

// Of more than is held at a time, what the first list named is written then, and the rest is left
// to the next pass.
TEST(PublishAwayTest, AMasterThatIsLostBeforeItsSecondListKeepsWhatTheFirstOneNamed)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create("max_prepared_transactions = 1\n"));
  constexpr int RECORDS = 1100;
  std::string const all = std::to_string(RECORDS);
  std::string const filler(4080, 'n'); // so that the first list fills one batch
  for (int i = 1; i < RECORDS; ++i)
    placeIn(service, std::to_string(i) + filler, "probe", itemsWith({{"a", "1"}}));
  storeAt(service, 3h, "web1");
  ASSERT_TRUE(service.start());

  // It has read all payloads of the first list by then.
  publishing.sql("begin; lock table history in share mode; prepare transaction 'between'");
  ASSERT_TRUE(publishing.start());
  ASSERT_TRUE(publishing.awaitSql("select count(*) from pg_locks where not granted", "1"))
      << publishing.log();
  EXPECT_EQ(service.stop(SIGKILL), 128 + SIGKILL);
  publishing.sql("rollback prepared 'between'");
  ASSERT_TRUE(publishing.awaitSql("select stale, reason from master", "t|it stopped answering"))
      << publishing.log();
  EXPECT_EQ(publishing.sql("select ahead > '2 hours' from master"), "t");
  EXPECT_EQ(publishing.sql("select count(*) between 500 and 1099, count(gone) from discovery"),
            "t|0")
      << publishing.log();
  EXPECT_EQ(publishing.sql("select distinct event from history"), "appeared");
  EXPECT_EQ(publishing.unsound(), Publishing::SOUND);
  EXPECT_EQ(occurrences(publishing.log(), "is listed again for the rest"), 1U);
  EXPECT_EQ(occurrences(publishing.log(), "A clock is off: "), 1U);

  ASSERT_TRUE(service.start());
  EXPECT_TRUE(publishing.awaitSql("select count(*), count(gone) from discovery", all + "|0"))
      << publishing.log();
  EXPECT_THAT(publishing.log(), Not(HasSubstr("Clocks agree again")));
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

TEST(PublishAwayTest, AStandbyThatTakesOverIsFollowedAndHasAllThatWasCommitted)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create("fsync = on\nsynchronous_commit = remote_apply\n"));
  PostgresServer standby(true);
  ASSERT_TRUE(standby.createStandbyOf(publishing.postgres()));
  ASSERT_TRUE(standby.start());
  publishing.sql("alter system set synchronous_standby_names = '*'");
  publishing.sql("select pg_reload_conf()");
  ASSERT_TRUE(publishing.awaitSql("select sync_state from pg_stat_replication", "sync"));

  publishing.more["PGHOST"] = standby.socket() + ',' + publishing.postgres().socket();
  ASSERT_TRUE(service.start());
  for (int i = 0; i < 20; ++i)
    storeIn(service, "web" + std::to_string(i), "probe", itemsWith({{"a", "1"}}));
  ASSERT_TRUE(publishing.start());
  std::string const rows = "select count(*) from item; select count(*) from history";
  ASSERT_TRUE(publishing.awaitSql(rows, "20\n20"));

  ASSERT_TRUE(publishing.postgres().kill());
  ASSERT_TRUE(standby.promote());
  EXPECT_EQ(standby.sql(rows), "20\n20");
  storeIn(service, "late", "probe", itemsWith({{"a", "1"}}));
  EXPECT_TRUE(eventually([&] { return standby.sql(rows) == "21\n21"; })) << publishing.log();
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}
