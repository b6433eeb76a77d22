#include "ozf/log/LogFlood.h"

#include "ozf/log/Logger.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char FLOOD_SOURCE[] = "LogFloodTest";

LogFlood::Time at(double seconds)
{
  return LogFlood::Time() + std::chrono::hours(1) +
         std::chrono::duration_cast<LogFlood::Time::duration>(
             std::chrono::duration<double>(seconds));
}

// A log file, by a clock of the test's own.
struct LogFloodFile : testing::Test
{
  void SetUp() override
  {
    std::string reason;
    ASSERT_TRUE(LoggerFactory::setFile(path(), reason)) << reason;
    LoggerFactory::setClock([this] { return at(seconds); });
  }
  void TearDown() override
  {
    LoggerFactory::setClock({});
    LoggerFactory::setStderr();
  }

  std::string path() const { return temp / "tq.log"; }

  // One place, as an attacker makes it write.
  static void miss(std::string const& name)
  {
    OZF_LOG(LoggerFactory::getLogger(400), 1, FLOOD_SOURCE, "Room::miss", "No such name: " << name);
  }

  // Another place.
  static void tell(std::string const& text, int level = 1)
  {
    OZF_LOG(LoggerFactory::getLogger(400), level, FLOOD_SOURCE, "Room::tell", text);
  }

  std::vector<std::string> lines(std::string const& part) const
  {
    std::ifstream in(path());
    std::vector<std::string> found;
    for (std::string line; std::getline(in, line);)
      if (line.find(part) != std::string::npos)
        found.push_back(line);
    return found;
  }

  // The sum of what was told to be left out.
  unsigned long leftOut() const
  {
    unsigned long sum = 0;
    for (auto const& line : lines("Left out "))
    {
      unsigned long count = 0;
      EXPECT_EQ(1, std::sscanf(line.c_str() + line.find("Left out "), "Left out %lu lines", &count))
          << line;
      sum += count;
    }
    return sum;
  }

  TempDir temp;
  double seconds = 0;
};

} // namespace

TEST(LogFlood, aBurstOfAWholeFleetPasses)
{
  LogFlood flood;
  for (int i = 0; i < 5000; ++i)
    ASSERT_TRUE(flood.admits(at(0), 300)) << i;
}

TEST(LogFlood, whatAFleetWritesAllDayPasses)
{
  LogFlood flood;
  for (int i = 0; i < 24 * 3600 * 25; ++i)
    ASSERT_TRUE(flood.admits(at(i / 25.0), 300)) << i;
}

TEST(LogFlood, aFloodIsSampledUntilItIsOver)
{
  LogFlood flood;
  int passed = 0;
  double time = 0;
  for (; time < 100; time += 0.001)
    passed += flood.admits(at(time), 300);
  EXPECT_TRUE(flood.isOn(at(time)));
  EXPECT_GE(passed, 5000 + 90);
  EXPECT_LE(passed, 5000 + 250);
  EXPECT_FALSE(flood.isOn(at(time + 21)));
  EXPECT_TRUE(flood.admits(at(time + 21), 300));
  // What came back meanwhile passes, and no more.
  int again = 0;
  for (int i = 0; i < 5000; ++i)
    again += flood.admits(at(time + 22), 300);
  EXPECT_LE(again, 25 * 123);
}

TEST(LogFlood, aFloodThatOnlySlowsDownGoesOn)
{
  LogFlood flood;
  double time = 0;
  for (; time < 20; time += 0.001)
    flood.admits(at(time), 300);
  int passed = 0;
  for (; time < 120; time += 0.02)
    passed += flood.admits(at(time), 300);
  EXPECT_TRUE(flood.isOn(at(time)));
  EXPECT_LE(passed, 101);
}

TEST(LogFlood, longLinesCountForMore)
{
  LogFlood flood;
  std::size_t bytes = 0;
  for (double time = 0; time < 60; time += 0.001)
    bytes += flood.admits(at(time), 20000) ? 20000 : 0;
  EXPECT_LT(bytes, LogFlood::BURST * LogFlood::PIECE + 60 * LogFlood::RATE * LogFlood::PIECE);
}

TEST(LogFlood, aLineLongerThanABurstPassesAlone)
{
  LogFlood flood;
  EXPECT_TRUE(flood.admits(at(0), 100000000));
  EXPECT_FALSE(flood.admits(at(0), 1));
}

TEST_F(LogFloodFile, everyLineOfAFloodIsWrittenOrCounted)
{
  constexpr unsigned long LINES = 300000;
  for (unsigned long i = 0; i < LINES; ++i)
  {
    miss(std::to_string(i));
    seconds += 0.0005;
  }
  EXPECT_EQ(2U, lines("Left out ").size()) << "one a minute";
  seconds += 60;
  LoggerFactory::reportLeftOut();
  ASSERT_EQ(3U, lines("Left out ").size()) << "and one at the end";
  auto const written = lines("No such name");
  EXPECT_EQ(LINES, written.size() + leftOut());
  EXPECT_LT(written.size(), 10000U);
  std::string const last = lines("Left out ").back();
  EXPECT_NE(std::string::npos, last.find(" 1 Room::miss: Left out ")) << last;
  EXPECT_NE(std::string::npos, last.find(" seconds (LogFloodTest:")) << last;
  LoggerFactory::reportLeftOut();
  LoggerFactory::flush();
  EXPECT_EQ(3U, lines("Left out ").size());
}

TEST_F(LogFloodFile, aFloodKeepsNobodyElseOut)
{
  for (int i = 0; i < 100000; ++i)
  {
    miss(std::to_string(i));
    if (i % 100 == 0)
      tell("a fact " + std::to_string(i));
  }
  EXPECT_EQ(1000U, lines("a fact").size());
}

TEST_F(LogFloodFile, theHistoryOutlivesAFloodOfLongNames)
{
  tell("what happened before");
  std::string const name(16000, 'n');
  for (int i = 0; i < 10000; ++i) // 160 MB
  {
    miss(name);
    seconds += 0.0002;
  }
  EXPECT_EQ(1U, lines("what happened before").size());
}

TEST_F(LogFloodFile, theNextLineOfAnybodyTellsOfAFloodThatIsOver)
{
  for (int i = 0; i < 6000; ++i)
    miss(std::to_string(i));
  EXPECT_EQ(0U, lines("Left out ").size());
  seconds += 11;
  tell("later");
  ASSERT_EQ(1U, lines("Left out 1000 lines from one place in 11 seconds").size());
}

TEST_F(LogFloodFile, theEndOfAProcessTellsOfAFloodThatGoesOn)
{
  for (int i = 0; i < 6000; ++i)
    miss(std::to_string(i));
  LoggerFactory::flush();
  EXPECT_EQ(1000U, leftOut());
}

TEST_F(LogFloodFile, detailIsNeverLeftOut)
{
  LoggerFactory::setLevel(4);
  for (int i = 0; i < 20000; ++i)
    tell("detail", 4);
  LoggerFactory::setLevel(1);
  EXPECT_EQ(20000U, lines("detail").size());
}

TEST_F(LogFloodFile, testsSeeEveryLine)
{
  LogCapture log(1);
  for (int i = 0; i < 6000; ++i)
    miss("x");
  EXPECT_EQ(6000U, log.lines().size());
}
