#include "ozf/base/OzfObjTime.h"

#include <ctime>
#include <gtest/gtest.h>
#include <limits>

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr auto LARGEST = std::numeric_limits<std::int64_t>::max();
constexpr auto SMALLEST = std::numeric_limits<std::int64_t>::min();

} // namespace

TEST(OzfObjTime, ZeroMeansNotSet)
{
  EXPECT_TRUE(OzfObjTime().isZero());
  EXPECT_TRUE(OzfObjTime(0, 0).isZero());
  EXPECT_FALSE(OzfObjTime(0, 1).isZero());
  EXPECT_FALSE(OzfObjTime(1).isZero());
}

TEST(OzfObjTime, NormalisesMicroseconds)
{
  OzfObjTime const carried(1, 2'500'000);
  EXPECT_EQ(carried.seconds(), 3);
  EXPECT_EQ(carried.microseconds(), 500'000);

  OzfObjTime const borrowed(5, -1);
  EXPECT_EQ(borrowed.seconds(), 4);
  EXPECT_EQ(borrowed.microseconds(), 999'999);

  OzfObjTime const exact(5, -2'000'000);
  EXPECT_EQ(exact.seconds(), 3);
  EXPECT_EQ(exact.microseconds(), 0);
}

TEST(OzfObjTime, SumsCarry)
{
  EXPECT_EQ(OzfObjTime(1, 700'000) + OzfObjTime(2, 600'000), OzfObjTime(4, 300'000));
}

TEST(OzfObjTime, SumsSaturate)
{
  EXPECT_EQ(OzfObjTime::max() + OzfObjTime(0, 1), OzfObjTime::max());
  EXPECT_EQ(OzfObjTime::max() + OzfObjTime::max(), OzfObjTime::max());
  EXPECT_EQ(OzfObjTime(1) + OzfObjTime(LARGEST), OzfObjTime::max());
  EXPECT_GT(OzfObjTime(1) + OzfObjTime(LARGEST), OzfObjTime(1));
}

TEST(OzfObjTime, ExtremeValuesDoNotWrap)
{
  EXPECT_EQ(OzfObjTime(LARGEST, LARGEST), OzfObjTime::max());
  EXPECT_EQ(OzfObjTime(LARGEST, 0), OzfObjTime::max());
  EXPECT_LT(OzfObjTime(SMALLEST, SMALLEST), OzfObjTime());
  EXPECT_LT(OzfObjTime(SMALLEST, 0) + OzfObjTime(SMALLEST, 0), OzfObjTime());
  OzfObjTime const micros(0, SMALLEST);
  EXPECT_GE(micros.microseconds(), 0);
  EXPECT_LT(micros, OzfObjTime());
}

TEST(OzfObjTime, MaxIsTheEndOfTheYear9999)
{
  EXPECT_EQ(OzfObjTime::max().seconds(), 253'402'300'799);
  EXPECT_EQ(OzfObjTime::max().microseconds(), 999'999);
}

TEST(OzfObjTime, QuarterIsExactToTheMicrosecond)
{
  EXPECT_EQ(OzfObjTime(100).quarter(), OzfObjTime(25));
  EXPECT_EQ(OzfObjTime(1).quarter(), OzfObjTime(0, 250'000));
  EXPECT_EQ(OzfObjTime(7, 4).quarter(), OzfObjTime(1, 750'001));
  EXPECT_EQ(OzfObjTime(0, 3).quarter(), OzfObjTime());
  EXPECT_EQ(OzfObjTime::max().quarter(), OzfObjTime(63'350'575'199, 999'999));
}

TEST(OzfObjTime, OrdersBySecondsThenMicroseconds)
{
  EXPECT_LT(OzfObjTime(1, 999'999), OzfObjTime(2, 0));
  EXPECT_LT(OzfObjTime(2, 0), OzfObjTime(2, 1));
  EXPECT_EQ(OzfObjTime(2, 1), OzfObjTime(2, 1));
}

TEST(OzfObjTime, NowIsTheWallClock)
{
  auto const before = std::time(nullptr);
  auto const now = OzfObjTime::now();
  // time() may lag by a clock tick, hence the second of slack.
  EXPECT_GE(now.seconds(), before);
  EXPECT_LE(now.seconds(), std::time(nullptr) + 1);
}

TEST(OzfObjTime, TheClockCanBeReplacedAndRestored)
{
  OzfObjTime::setClock([] { return OzfObjTime(42, 7); });
  EXPECT_EQ(OzfObjTime::now(), OzfObjTime(42, 7));
  OzfObjTime::setClock(nullptr);
  EXPECT_GT(OzfObjTime::now(), OzfObjTime(1'000'000'000));
}
