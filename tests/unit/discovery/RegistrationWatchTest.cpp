#include "discovery/RegistrationWatch.h"

#include "tests/support/FakeExplorers.h"

#include <gtest/gtest.h>

#include <future>

using namespace tqtest;

namespace
{

AutoDereference<ExplorerWrapper> watchedEntry(char const* authority, AuthorityType type,
                                              unsigned priority)
{
  AutoDereference<FakePush> const explorer(new FakePush("x"));
  return AutoDereference<ExplorerWrapper>(new ExplorerWrapper(
      explorer.get(), priority, new Subject("s"), new Authority(authority, type)));
}

} // namespace

TEST(RegistrationWatchTest, WhoLosesIsNotedWithWhatStandsInItsPlace)
{
  auto const loser = watchedEntry("disks", AT_EXTSRC, 7);
  auto const standing = watchedEntry("volume", AT_REMOTEPULL, 9);
  RegistrationWatch const watch("library");
  RegistrationWatch::note(*loser, standing.get());
  RegistrationWatch::note(*loser, nullptr);
  ASSERT_EQ(2U, watch.losers().size());
  for (RegistrationWatch::Loser const& noted : watch.losers())
  {
    EXPECT_EQ("disks", noted.authority);
    EXPECT_EQ(AT_EXTSRC, noted.type);
    EXPECT_EQ(7U, noted.priority);
  }
  EXPECT_EQ("volume", watch.losers()[0].standing);
  EXPECT_EQ(AT_REMOTEPULL, watch.losers()[0].standingType);
  EXPECT_EQ(9U, watch.losers()[0].standingPriority);
  EXPECT_EQ("", watch.losers()[1].standing);
}

TEST(RegistrationWatchTest, OnlyItsOwnThreadIsWatchedAndOnlyWhileItIsThere)
{
  auto const loser = watchedEntry("disks", AT_EXTSRC, 7);
  {
    RegistrationWatch const watch("library");
    std::async(std::launch::async, [&] { RegistrationWatch::note(*loser, nullptr); }).get();
    EXPECT_TRUE(watch.losers().empty());
  }
  RegistrationWatch::note(*loser, nullptr);
}
