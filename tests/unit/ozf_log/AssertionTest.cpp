#include "ozf/log/Assertion.h"

#include "tests/support/LogCapture.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char ASSERTING[] = "AssertionTest";

void mustHold(bool condition)
{
  OZF_ASSERT(condition, "NULL != m_writer", ASSERTING, "Room::operation");
}
int const mustHoldLine = __LINE__ - 2;

std::string expectedText()
{
  return "Assertion failed: NULL != m_writer (AssertionTest:" + std::to_string(mustHoldLine) + ")";
}

} // namespace

TEST(Assertion, IsSilentWhileItHolds)
{
  LogCapture log;
  EXPECT_NO_THROW(mustHold(true));
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Assertion, ThrowsWhatFailedAndLogsIt)
{
  LogCapture log(1);
  try
  {
    mustHold(false);
    FAIL() << "nothing was thrown";
  }
  catch (AssertionFailure const& failure)
  {
    EXPECT_EQ(failure.what(), expectedText());
  }
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, 1);
  EXPECT_EQ(log.lines()[0].operation, "Room::operation");
  EXPECT_EQ(log.lines()[0].text, expectedText());
}

TEST(Assertion, IsAStandardException) { EXPECT_THROW(mustHold(false), std::logic_error); }

TEST(Assertion, EvaluatesItsConditionOnce)
{
  int evaluated = 0;
  OZF_ASSERT(++evaluated > 0, "evaluated", ASSERTING, "o");
  EXPECT_EQ(evaluated, 1);
}

TEST(Assertion, OtherValuesOfTheEnvironmentDoNotAbort)
{
  setenv("OZF_ASSERT", "throw", 1);
  EXPECT_THROW(mustHold(false), AssertionFailure);
  unsetenv("OZF_ASSERT");
}

TEST(AssertionDeathTest, AbortsWhenTheEnvironmentAsksForIt)
{
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        setenv("OZF_ASSERT", "abort", 1);
        mustHold(false);
      },
      testing::KilledBySignal(SIGABRT), "Assertion failed: NULL != m_writer");
}
