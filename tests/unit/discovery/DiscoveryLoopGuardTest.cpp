#include "discovery/DiscoveryLoopGuard.h"

#include <gtest/gtest.h>

#include <list>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

TEST(DiscoveryLoopGuardTest, RefusesTheTwentyFirstCallInProgress)
{
  LoopCounter counter;
  std::list<LoopGuard> calls;
  for (int i = 0; i < 20; ++i)
    EXPECT_FALSE(calls.emplace_back(counter).exceeded());
  EXPECT_TRUE(calls.emplace_back(counter).exceeded());
}

TEST(DiscoveryLoopGuardTest, ACallThatEndsMakesRoom)
{
  LoopCounter counter;
  std::list<LoopGuard> calls;
  for (int i = 0; i < 21; ++i)
    calls.emplace_back(counter);
  calls.pop_back();
  EXPECT_TRUE(LoopGuard(counter).exceeded());
  calls.pop_back();
  EXPECT_FALSE(LoopGuard(counter).exceeded());
}

TEST(DiscoveryLoopGuardTest, CountersAreSeparate)
{
  LoopCounter one;
  LoopCounter other;
  std::list<LoopGuard> calls;
  for (int i = 0; i < 21; ++i)
    calls.emplace_back(one);
  EXPECT_FALSE(LoopGuard(other).exceeded());
}
