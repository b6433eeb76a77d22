// A pass that is killed at any moment, and the one that follows it.

#include "tests/system/publish/PublishTesting.h"

#include <random>

namespace
{

using namespace tqtest;

constexpr int RECORDS = 300;

void fill(LiveService const& service, int round)
{
  for (int i = 0; i < RECORDS; ++i)
    if (round == 0 || i % 7 == round % 7)
      placeIn(service, "host" + std::to_string(i), "probe",
              itemsWith({{"a", std::to_string(i % 5)}, {"b", std::to_string(round)}}));
}

std::string digestOfRows(Publishing const& publishing)
{
  return publishing.sql(
      "select md5(string_agg(r, '+' order by r)) from ("
      "select concat_ws('|', subject, authority, type, encode(digest, 'hex'), unread, problem, "
      "gone is null) as r from discovery union all "
      "select concat_ws('|', d.subject, i.key, i.name, i.facts) from item i "
      "join discovery d on d.id = i.discovery_id union all "
      "select encode(digest, 'hex') || length(content) from payload p where exists "
      "(select from discovery d where d.digest = p.digest)) rows");
}

} // namespace

TEST(PublishKillTest, APassThatIsKilledLeavesNothingThatTheNextDoesNotMend)
{
  LiveService service;
  Publishing publishing(service);
  Publishing undisturbed(service);
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(undisturbed.create());
  fill(service, 0);
  ASSERT_TRUE(service.start());

  // For the first third it starts, lists, and waits for the next second.
  auto const begin = std::chrono::steady_clock::now();
  ASSERT_EQ(undisturbed.once().exitCode, 0);
  auto const taken = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - begin);
  unsigned const seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::uniform_int_distribution<long> moments(taken.count() / 3, taken.count());
  int killed = 0;
  for (int round = 1; killed < 4 && round <= 12; ++round)
  {
    Process pass(TQ_BIN_DIR "/tqpublish", {"--once"}, publishing.environment());
    if (!pass.wait(std::chrono::milliseconds(moments(random))))
    {
      pass.sendSignal(SIGKILL);
      ASSERT_TRUE(pass.wait());
      ++killed;
    }
    fill(service, round);
  }
  EXPECT_GT(killed, 0);
  Outcome const last = publishing.once();
  ASSERT_EQ(last.exitCode, 0) << last.errors;
  ASSERT_EQ(undisturbed.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select count(*), count(distinct subject) from discovery"),
            std::to_string(RECORDS) + '|' + std::to_string(RECORDS));
  EXPECT_EQ(digestOfRows(publishing), digestOfRows(undisturbed));
  EXPECT_EQ(publishing.sql("select count(*) from history where event = 'appeared'"),
            std::to_string(RECORDS));
  EXPECT_EQ(publishing.unsound(), Publishing::SOUND);
}
