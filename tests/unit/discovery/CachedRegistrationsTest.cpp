#include "discovery/CachedRegistrations.h"

#include <gtest/gtest.h>

using Quillon::Tessarine::Ozf::DiscoverySvc::CachedRegistrations;

TEST(CachedRegistrationsTest, ASubjectHasSoManyAndOthersAreNotConcerned)
{
  CachedRegistrations cached;
  std::size_t most = 0;
  cached.note("flood");
  for (std::size_t i = 1; i < CachedRegistrations::MOST_OF_SUBJECT; ++i)
    ASSERT_TRUE(cached.reserve("flood", most));
  EXPECT_FALSE(cached.reserve("flood", most));
  EXPECT_EQ(most, CachedRegistrations::MOST_OF_SUBJECT);
  EXPECT_TRUE(cached.reserve("honest", most));
  cached.giveBack("flood");
  EXPECT_TRUE(cached.reserve("flood", most));
}

TEST(CachedRegistrationsTest, ThereAreSoManyInAll)
{
  constexpr std::size_t MOST = 50'000;
  CachedRegistrations cached;
  std::size_t most = 0;
  for (std::size_t i = 0; i < MOST; ++i)
    ASSERT_TRUE(cached.reserve("subject" + std::to_string(i), most));
  EXPECT_FALSE(cached.reserve("another", most));
  EXPECT_EQ(most, MOST);
  EXPECT_TRUE(cached.isFull());
  cached.clear();
  EXPECT_TRUE(cached.reserve("another", most));
}
