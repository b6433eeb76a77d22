#include "ozf/log/LogCounts.h"

#include "ozf/log/Logger.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <fstream>
#include <string>
#include <vector>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

constexpr char COUNTS_SOURCE[] = "LogCountsTest";

// A log file, by a clock of the test's own.
struct LogCountsFile : testing::Test
{
  void SetUp() override
  {
    std::string reason;
    ASSERT_TRUE(LoggerFactory::setFile(temp / "tq.log", reason)) << reason;
    LoggerFactory::setClock(
        [this] { return LogCounts::Time() + std::chrono::hours(1) + std::chrono::seconds(now); });
  }
  void TearDown() override
  {
    LoggerFactory::setExcepted({});
    LoggerFactory::setClock({});
    LoggerFactory::setStderr();
  }

  static void fail(std::string const& text, int level = 1)
  {
    OZF_LOG(LoggerFactory::getLogger(400), level, COUNTS_SOURCE, "Room::fail", text);
  }

  // Every line from its level on.
  std::vector<std::string> lines() const
  {
    std::ifstream in(temp / "tq.log");
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);)
      all.push_back(line.substr(line.find("] ") + 2));
    return all;
  }

  TempDir temp;
  int now = 0; // seconds
};

} // namespace

TEST_F(LogCountsFile, aLineThatRepeatsIsWrittenOnceAndThenCounted)
{
  for (int i = 0; i < 12000; ++i)
  {
    fail("Unable to open a file");
    fail("and another");
  }
  EXPECT_THAT(lines(), ElementsAre(HasSubstr("1 Room::fail: Unable to open a file (LogCounts"),
                                   HasSubstr("1 Room::fail: and another (")));
  now = 60;
  fail("Unable to open a file");
  EXPECT_THAT(lines(), ElementsAre(HasSubstr("Unable to"), HasSubstr("and another"),
                                   HasSubstr("1 Room::fail: Repeated 11999 times in 60 seconds: "
                                             "Unable to open a file (LogCounts"),
                                   HasSubstr("Repeated 11999 times in 60 seconds: and another")));
  now = 120;
  LoggerFactory::reportLeftOut();
  ASSERT_EQ(5u, lines().size());
  EXPECT_THAT(lines().back(), HasSubstr("Repeated 1 time in 60 seconds: Unable to open a file"));
}

TEST_F(LogCountsFile, aLineThatComesSeldomIsWrittenEachTime)
{
  for (; now < 600; now += 61)
    fail("Unable to reach the master");
  for (auto const& line : lines())
    EXPECT_THAT(line, HasSubstr("Room::fail: Unable to reach"));
  EXPECT_EQ(10u, lines().size());
}

TEST_F(LogCountsFile, theEndOfAProcessTellsOfRepeats)
{
  fail("a");
  fail("a");
  LoggerFactory::flush();
  LoggerFactory::flush();
  EXPECT_THAT(lines(), ElementsAre(HasSubstr("fail: a ("), HasSubstr("Repeated 1 time in ")));
}

TEST_F(LogCountsFile, detailAndLinesOfOtherOperationsAreNoRepeats)
{
  LoggerFactory::setLevel(4);
  fail("same", 4);
  fail("same", 4);
  OZF_LOG(LoggerFactory::getLogger(400), 1, COUNTS_SOURCE, "Room::a", "same");
  OZF_LOG(LoggerFactory::getLogger(400), 1, COUNTS_SOURCE, "Room::b", "same");
  LoggerFactory::setLevel(1);
  EXPECT_EQ(4u, lines().size());
}

TEST_F(LogCountsFile, linesThatDifferDoNotFillTheMemory)
{
  LogCounts counts;
  LogCounts::Time const time{};
  for (std::size_t i = 0; i < 2 * LogCounts::MOST_KEPT; ++i)
  {
    EXPECT_FALSE(counts.isRepeated("o", std::to_string(i)));
    counts.noteWritten(1, "o", std::to_string(i), time);
  }
  EXPECT_TRUE(counts.isRepeated("o", "0"));
  EXPECT_FALSE(counts.isRepeated("o", std::to_string(LogCounts::MOST_KEPT)));
  std::string const longest(LogCounts::LONGEST_KEPT + 1, 'x');
  LogCounts empty;
  empty.noteWritten(1, "o", longest, time);
  EXPECT_FALSE(empty.isRepeated("o", longest));
  // What was kept goes when it does not come again.
  counts.report(time + LogCounts::REPEAT_PERIOD, false, [](int, auto const&, auto const&) {});
  EXPECT_FALSE(counts.isRepeated("o", "new"));
  counts.noteWritten(1, "o", "new", time + LogCounts::REPEAT_PERIOD);
  EXPECT_TRUE(counts.isRepeated("o", "new"));
}

// What a flood kept out was never written, so nobody is told that it came again.
TEST_F(LogCountsFile, aLineThatAFloodKeptOutIsNoRepeat)
{
  std::string const tail(950, '.');
  auto const flood = [&tail](std::string const& name, int lines)
  {
    for (int i = 0; i < lines; ++i)
      fail(name + std::to_string(i) + tail);
  };
  flood("first", 20000);
  now = 61; // the site lets some hundreds in again, and nothing is remembered
  LoggerFactory::reportLeftOut();
  flood("then", 950);
  for (int i = 0; i < 5; ++i)
    fail("then949" + tail);
  now = 122;
  LoggerFactory::reportLeftOut();
  auto const all = lines();
  EXPECT_THAT(all, testing::Contains(HasSubstr("Room::fail: then10.")));
  EXPECT_THAT(all, testing::Not(testing::Contains(HasSubstr("Room::fail: then949."))));
  EXPECT_THAT(all, testing::Not(testing::Contains(HasSubstr("Repeated"))));
}

TEST_F(LogCountsFile, whatIsExceptedIsCountedByTheHour)
{
  LoggerFactory::setExcepted({"Successfully renamed *", "Unable to delete *.dat (*"});
  for (int i = 0; i < 70; ++i)
  {
    fail("Successfully renamed " + std::to_string(i));
    fail("Unable to delete /db/" + std::to_string(i) + ".dat");
    now += 60;
  }
  fail("Unable to delete 1.updating");
  EXPECT_THAT(lines(),
              ElementsAre("1 LOG_EXCEPT: Kept out 60 lines in 3600 seconds: Successfully renamed *",
                          "1 LOG_EXCEPT: Kept out 60 lines in 3600 seconds: Unable to delete "
                          "*.dat (*",
                          HasSubstr("Unable to delete 1.updating")));
  LoggerFactory::flush();
  EXPECT_EQ(5u, lines().size()) << "the rest is told at the end";
}

TEST_F(LogCountsFile, theLastLineOfAPatternIsToldWhenItIsTakenAway)
{
  LoggerFactory::setExcepted({"routine*", "other*"});
  fail("routine");
  fail("other");
  LoggerFactory::setExcepted({"other*"});
  EXPECT_THAT(lines(), ElementsAre("1 LOG_EXCEPT: Kept out 1 line in 0 seconds: routine*"));
  fail("routine");
  LoggerFactory::setExcepted({});
  EXPECT_EQ(3u, lines().size());
  EXPECT_THAT(lines()[1], HasSubstr("Room::fail: routine ("));
}

TEST_F(LogCountsFile, testsSeeWhatIsLeftOut)
{
  LogCapture log(1);
  LoggerFactory::setExcepted({"routine*"});
  for (int i = 0; i < 3; ++i)
  {
    fail("routine");
    fail("again");
  }
  EXPECT_EQ(6u, log.lines().size());
}
