// What tqpublish makes of clocks that differ.

#include "tests/support/MovedClock.h"
#include "tests/system/publish/PublishTesting.h"

using namespace std::chrono_literals;
using namespace tqtest;

TEST(PublishClockTest, AClockThatIsOffIsNamedAndDoesNotDecideWhoIsSilent)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  std::string const times = "select discovered > now() + interval '2 hours', reported <= now() "
                            "from discovery";
  storeAt(service, 3h, "web1");
  Outcome const ahead = publishing.once();
  EXPECT_THAT(ahead.errors, HasSubstr("A clock is off: that of the master tqtestmaster, or of who "
                                      "reports to it of web1, by 10"));
  EXPECT_EQ(publishing.sql(times), "t|t");
  EXPECT_EQ(publishing.sql("select extract(hour from ahead + interval '10 seconds') from master"),
            "3");

  // Two days behind, in a report that comes now.
  ASSERT_TRUE(publishing.start());
  ASSERT_TRUE(publishing.process().awaitError("1 listed, 0 written"));
  storeAt(service, -48h, "web1");
  EXPECT_TRUE(publishing.process().awaitError("reports to it of web1, by -17"));
  EXPECT_EQ(publishing.sql("select discovered < now() - interval '1 day' from discovery"), "t");
  storeAt(service, -48h, "web2");
  EXPECT_TRUE(publishing.awaitSql("select count(*) from item", "2")) << publishing.log();
  EXPECT_EQ(publishing.sql("select count(*) from silent_host"), "0");
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

// By its real clock, of what its own explorers report.
TEST(PublishClockTest, OfTwoMastersTheOneWhoseClockIsOffIsNamedAndTheOtherIsUndisturbed)
{
  LiveService right(LiveService::WITHOUT_EXPLORERS, "right");
  LiveService wrong(LiveService::WITH_EXPLORERS, "wrong", "127.0.0.2", right.port());
  MovedClock clock(wrong / "clock");
  Publishing publishing(right, "PUBLISH_MASTERS = right\nPUBLISH_MASTERS = wrong\n"
                               "HOST_ADDRESS.wrong = 127.0.0.2\n");
  ASSERT_TRUE(publishing.create());
  storeIn(right, "web1", "probe", itemsWith({{"a", "1"}}));
  clock.set(3h);
  ASSERT_TRUE(right.start());
  ASSERT_TRUE(wrong.start(clock.environment()));
  ASSERT_TRUE(publishing.start());
  std::string const off = "A clock is off: that of the master wrong, or of who reports to it of "
                          "wrong, by ";
  auto const marked = [&](std::string const& times)
  {
    return publishing.awaitSql("select name, stale, complete, coalesce(ahead " + times +
                                   ", false) from master order by name",
                               "right|f|t|f\nwrong|f|t|t");
  };
  EXPECT_TRUE(publishing.process().awaitError(off + "10")) << publishing.log();
  EXPECT_TRUE(marked("between '179 minutes' and '181 minutes'"));

  // It forgets what it had, so that all that it lists is of its new time.
  auto const restartAt = [&](std::chrono::seconds from)
  {
    EXPECT_EQ(wrong.stop(), 0);
    std::filesystem::remove_all(wrong.database());
    clock.set(from);
    return wrong.start(clock.environment());
  };
  ASSERT_TRUE(restartAt(-48h));
  EXPECT_TRUE(publishing.process().awaitError(off + "-17")) << publishing.log();
  EXPECT_TRUE(marked("between '-49 hours' and '-47 hours'"));

  ASSERT_TRUE(restartAt(0h));
  EXPECT_TRUE(
      publishing.awaitSql("select count(*), count(ahead) from master where not stale", "2|0"))
      << publishing.log();
  EXPECT_THAT(publishing.log(), HasSubstr("Clocks agree again: that of the master wrong"));
  EXPECT_THAT(publishing.log(), Not(HasSubstr("that of the master right")));
  EXPECT_EQ(publishing.sql("select subject, gone is null, discovered between now() - interval '1 "
                           "hour' and now(), (select count(*) from history where discovery_id = "
                           "d.id) from discovery d join master m on m.id = d.master_id "
                           "where m.name = 'right'"),
            "web1|t|t|1");
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}
