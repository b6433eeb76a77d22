// Failures that repeat while many collections are read.

#include "tests/support/CommandTest.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr char GIVEN_UP[] = "giving up after 20 such failures in a row; the rest was not tried";

class TqdiscoctlRepeatsTest : public CommandTest
{
protected:
  // Items of subjects that are listed in the order of their numbers. Unread ones
  // are no XML, halves break off behind an item.
  void storeWhole(int from, int count) const { storeAll(from, count, item() + END); }
  void storeUnread(int from, int count) const { storeAll(from, count, "no XML"); }
  void storeHalf(int from, int count) const { storeAll(from, count, item()); }

  Outcome items() const { return run({"items", "-a", "things"}); }

private:
  static constexpr char const* END = "</DiscoveredItems>";
  static std::string item() { return "<DiscoveredItems><DISCOVERED Name=\"thing\"/>"; }

  void storeAll(int from, int count, std::string const& payload) const
  {
    for (int i = from; i < from + count; ++i)
      store("subject" + std::to_string(i), "things", payload, {"--unchecked", "--type", "client"});
  }
};

TEST_F(TqdiscoctlRepeatsTest, theFirstThreeOfOneKindAreToldAndTheOthersCounted)
{
  storeUnread(10, 6);
  storeHalf(20, 5);
  storeWhole(30, 1);
  storeUnread(40, 3);
  Outcome const outcome = items();
  EXPECT_EQ(outcome.exitCode, 4) << outcome.errors;
  EXPECT_EQ(occurrences(outcome.errors, "tqdiscoctl: nothing of the collection of"), 6U)
      << outcome.errors;
  EXPECT_EQ(occurrences(outcome.errors, "tqdiscoctl: only a part of the collection of"), 3U)
      << outcome.errors;
  // In the order of what happened.
  EXPECT_THAT(outcome.errors,
              testing::ContainsRegex("subject12\"(.|\n)*"
                                     "3 more collections could not be read in the same way\n"
                                     "(.|\n)*subject22\"(.|\n)*"
                                     "2 more collections could not be read in the same way\n"
                                     "(.|\n)*subject40\""));
  for (char const* const counted : {"subject13", "subject15", "subject23", "subject24"})
    EXPECT_THAT(outcome.errors, Not(HasSubstr(counted)));
  EXPECT_EQ(occurrences(outcome.errors, "more collection"), 2U) << outcome.errors;
  EXPECT_THAT(outcome.errors, Not(HasSubstr("giving up")));
  EXPECT_THAT(outcome.output, HasSubstr("subject30"));
}

TEST_F(TqdiscoctlRepeatsTest, twentyOfOneKindInARowEndTheCommandAndItSaysSo)
{
  storeUnread(10, 22);
  storeWhole(40, 1);
  for (Words const& words :
       {Words{"items", "-a", "things"}, Words{"items", "-a", "things", "--json"},
        Words{"filters", "*", "things"}})
  {
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 1) << outcome.errors;
    EXPECT_EQ(occurrences(outcome.errors, "nothing of the collection of"), 3U) << outcome.errors;
    EXPECT_THAT(outcome.errors,
                AllOf(HasSubstr("17 more collections could not be read in the same way\n"),
                      HasSubstr(GIVEN_UP)));
    EXPECT_THAT(outcome.output, Not(HasSubstr("subject40"))) << words.back();
  }
}

TEST_F(TqdiscoctlRepeatsTest, oneThatIsReadOrFailsOtherwiseEndsTheRow)
{
  storeUnread(10, 19);
  storeWhole(30, 1);
  storeUnread(40, 19);
  storeHalf(60, 1);
  storeUnread(70, 1);
  storeWhole(80, 1);
  Outcome const outcome = items();
  EXPECT_EQ(outcome.exitCode, 4) << outcome.errors;
  EXPECT_THAT(outcome.errors, Not(HasSubstr("giving up")));
  EXPECT_EQ(occurrences(outcome.errors, "16 more collections"), 2U) << outcome.errors;
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("subject30"), HasSubstr("subject80")));
}

} // namespace
