#include "ozf/config/Limits.h"
#include "ozf/config/ConfigurationKeys.h"

#include "tests/support/ConfiguredHost.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

constexpr ConfigurationKey SOME_KEY{
    .name = "SOME_LIMIT", .kind = KeyKind::NUMBER, .low = 0, .high = 100, .number = 7};

struct LimitTest : testing::Test
{
  Limit limit{SOME_KEY};
  Limit::Clock::time_point now{};

  // "-" for no line, what it ends in otherwise.
  std::string meet(std::string const& peer) { return limit.meet(peer, now).value_or("-"); }
};

} // namespace

TEST_F(LimitTest, ForbidsWhatIsMoreAndNothingWhenItIsZero)
{
  EXPECT_EQ(7, limit.value());
  EXPECT_FALSE(limit.forbids(7));
  EXPECT_TRUE(limit.forbids(8));
  Limit none{configKey("LIMIT_PEER_DAY_BYTES")};
  EXPECT_FALSE(none.forbids(std::numeric_limits<std::uint64_t>::max()));
}

TEST_F(LimitTest, TellsHowOftenItWasMetAndByWhomLast)
{
  EXPECT_FALSE(limit.met());
  meet("192.0.2.1");
  meet("192.0.2.2");
  auto const met = limit.met();
  ASSERT_TRUE(met);
  EXPECT_EQ("SOME_LIMIT", met->key);
  EXPECT_EQ(7, met->value);
  EXPECT_EQ(2U, met->times);
  EXPECT_EQ("192.0.2.2", met->lastPeer);
  EXPECT_FALSE(met->lastTime.isZero());
}

TEST_F(LimitTest, OnePeerHasALineAMinuteWhichCountsTheOthers)
{
  EXPECT_EQ("", meet("192.0.2.1"));
  for (int i = 0; i < 1000; ++i)
    EXPECT_EQ("-", meet("192.0.2.1"));
  now += std::chrono::seconds(59);
  EXPECT_EQ("-", meet("192.0.2.1"));
  now += std::chrono::seconds(1);
  EXPECT_EQ("; SOME_LIMIT was met 1001 times since the last such line", meet("192.0.2.1"));
  now += std::chrono::seconds(60);
  EXPECT_EQ("", meet("192.0.2.1"));
}

TEST_F(LimitTest, AnotherPeerIsNamedAtOnceButOneOfManyASecond)
{
  EXPECT_EQ("", meet("192.0.2.1"));
  now += std::chrono::seconds(1);
  EXPECT_EQ("", meet("192.0.2.2"));
  EXPECT_EQ("-", meet("192.0.2.3"));
  now += std::chrono::seconds(1);
  EXPECT_EQ("; SOME_LIMIT was met 1 time since the last such line", meet("192.0.2.4"));
}

using LimitsTest = ConfiguredHost;

TEST_F(LimitsTest, HoldWhatTheConfigurationSaysFromItsReadingOn)
{
  LogCapture const quiet;
  configure("LIMIT_PEER_WRITERS = 5\nLIMIT_WRITERS = many\n");
  EXPECT_EQ(5, getLimits().peerWriters.value());
  EXPECT_EQ(256, getLimits().writers.value()) << "a mistake leaves it";
  overrideConfiguration("LIMIT_PEER_WRITERS", "6");
  EXPECT_EQ(6, getLimits().peerWriters.value());
  configure("");
  EXPECT_EQ(6, getLimits().peerWriters.value()) << "what a command line says holds on";
}

TEST_F(LimitsTest, AreNotLiftedByAFileThatCannotBeRead)
{
  LogCapture const quiet;
  configure("LIMIT_PEER_WRITERS = 5\n");
  std::filesystem::remove(file());
  std::filesystem::create_directory(file());
  EXPECT_FALSE(reloadConfiguration());
  EXPECT_EQ(5, getLimits().peerWriters.value());
}

TEST_F(LimitsTest, TellOfThoseThatWereMet)
{
  EXPECT_THAT(getLimits().met(), IsEmpty());
  getLimits().payload.meet("192.0.2.1");
  ASSERT_THAT(getLimits().met(), SizeIs(1));
  EXPECT_EQ("LIMIT_PAYLOAD", getLimits().met().front().key);
}

TEST(PeerCountsTest, CountWhatAPeerHasUntilItEnds)
{
  PeerCounts counts;
  std::optional<PeerCounts::Place> first(std::in_place, counts, "192.0.2.1");
  PeerCounts::Place const second(counts, "192.0.2.1");
  PeerCounts::Place const other(counts, "192.0.2.2");
  EXPECT_EQ(2U, second.number());
  EXPECT_EQ(1U, other.number());
  EXPECT_EQ("192.0.2.2", other.peer());
  first.reset();
  EXPECT_EQ(1U, counts.of("192.0.2.1"));
  EXPECT_EQ(2U, PeerCounts::Place(counts, "192.0.2.1").number());
  EXPECT_EQ(0U, counts.of("192.0.2.3"));
}
