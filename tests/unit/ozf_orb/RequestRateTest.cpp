#include "ozf/orb/RequestRate.h"

#include "ozf/config/Configuration.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace std::chrono_literals;

namespace
{

struct RequestRateTest : testing::Test
{
  RequestRate rate;
  RequestRate::Clock::time_point const start{1h};

  RequestRateTest()
  {
    LogCapture const quiet;
    overrideConfiguration("LIMIT_PEER_REQUESTS", "10");
    overrideConfiguration("LIMIT_REQUEST_WAIT", "300");
    reloadConfiguration();
  }

  int admittedAt(RequestRate::Clock::time_point now)
  {
    int count = 0;
    while (count < 1000 && rate.admits(now))
      ++count;
    return count;
  }
};

} // namespace

TEST_F(RequestRateTest, LetsAFirstSecondsRequestsInAtOnceAndThenAtAnEvenPace)
{
  EXPECT_EQ(10, admittedAt(start));
  EXPECT_EQ(0, admittedAt(start + 99ms));
  EXPECT_EQ(1, admittedAt(start + 100ms));
  EXPECT_EQ(4, admittedAt(start + 500ms));
  EXPECT_EQ(10, admittedAt(start + 1h));
}

TEST_F(RequestRateTest, GivesTurnsOneAfterTheOtherAndNoneThatIsTooLate)
{
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(start, rate.reserve(start)) << i;
  EXPECT_EQ(start + 100ms, rate.reserve(start));
  EXPECT_EQ(start + 200ms, rate.reserve(start));
  EXPECT_EQ(start + 300ms, rate.reserve(start));
  EXPECT_FALSE(rate.reserve(start));
  EXPECT_FALSE(rate.reserve(start + 99ms));
  EXPECT_EQ(start + 400ms, rate.reserve(start + 100ms)) << "what was refused does not count";
  EXPECT_FALSE(rate.admits(start + 400ms)) << "before those whose turn has been given";
}

TEST_F(RequestRateTest, IsOneForAllConnectionsOfAnAddress)
{
  auto const one = requestRateOf("192.0.2.1");
  EXPECT_EQ(one, requestRateOf("192.0.2.1"));
  EXPECT_NE(one, requestRateOf("192.0.2.2"));
}

TEST_F(RequestRateTest, OutlastsTheConnectionsOfAnAddressWhileItCounts)
{
  auto const now = RequestRate::Clock::now();
  for (int i = 0; i < 10; ++i)
    ASSERT_TRUE(requestRateOf("192.0.2.1")->admits(now));
  for (int i = 0; i < 1000; ++i)
    requestRateOf("2001:db8::" + std::to_string(i));
  EXPECT_FALSE(requestRateOf("192.0.2.1")->admits(now));
}
