#include "discovery/PullPace.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using namespace std::chrono_literals;

namespace
{

constexpr PullPace::Clock::time_point LATER(1h);

} // namespace

TEST(PullPaceTest, whatWasNotTakenBeforeMayBeTakenAtOnce)
{
  PullPace pace(0.5, 2s);
  EXPECT_EQ(pace.spend(LATER, 600ms), 0s);
  EXPECT_EQ(pace.spend(LATER, 400ms), 0s);
}

TEST(PullPaceTest, whatIsBeyondThatIsMadeUpForByAll)
{
  PullPace pace(0.5, 2s);
  pace.spend(LATER, 1s);
  EXPECT_EQ(pace.spend(LATER, 100ms), 200ms);
  EXPECT_EQ(pace.spend(LATER, 100ms), 400ms);
  EXPECT_EQ(pace.rested(), 600ms);
}

TEST(PullPaceTest, timeMakesUpForIt)
{
  PullPace pace(0.5, 2s);
  pace.spend(LATER, 1s);
  EXPECT_EQ(pace.spend(LATER + 300ms, 100ms), 0s);
  EXPECT_EQ(pace.spend(LATER + 300ms, 100ms), 100ms);
  EXPECT_EQ(pace.spend(LATER + 1h, 1s), 0s); // no more than that of two seconds
  EXPECT_EQ(pace.spend(LATER + 1h, 50ms), 100ms);
}

TEST(PullPaceTest, aThreadThatKeepsNoPaceNeverRests)
{
  PullPace::ofProcess().set(1e-9, 0s);
  EXPECT_EQ(PacedThread::dueRest(), 0s);
  PacedThread const paced;
  EXPECT_GT(PacedThread::dueRest(), 0s);
}
