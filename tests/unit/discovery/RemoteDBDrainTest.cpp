#include "discovery/RemoteDBDrain.h"

#include <gtest/gtest.h>

using Quillon::Tessarine::Ozf::DiscoverySvc::DrainLimit;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

// A clock that the test sets.
struct RemoteDBDrainTest : testing::Test
{
  static inline std::chrono::steady_clock::time_point now{seconds(1000)};
  static std::chrono::steady_clock::time_point clock() { return now; }

  DrainLimit const limit{&clock};
};

} // namespace

TEST_F(RemoteDBDrainTest, TheFirstMinuteIsFree)
{
  EXPECT_FALSE(limit.exceeded(0));
  now += seconds(60);
  EXPECT_FALSE(limit.exceeded(0));
  now += milliseconds(1);
  EXPECT_TRUE(limit.exceeded(0));
}

TEST_F(RemoteDBDrainTest, EveryHundredBytesEarnASecond)
{
  now += seconds(60) + milliseconds(1);
  EXPECT_TRUE(limit.exceeded(99));
  EXPECT_FALSE(limit.exceeded(100));
  now += seconds(3600);
  EXPECT_TRUE(limit.exceeded(360'099));
  EXPECT_FALSE(limit.exceeded(360'100));
}

TEST_F(RemoteDBDrainTest, TheLargestAnswersDoNotWrapRound)
{
  now += seconds(100'000);
  EXPECT_FALSE(limit.exceeded(std::size_t(256) << 20));
}

TEST_F(RemoteDBDrainTest, CountsFromItsMaking)
{
  now += seconds(61);
  EXPECT_TRUE(limit.exceeded(0));
  EXPECT_FALSE(DrainLimit(&clock).exceeded(0));
}
