#include "ozf/xml/JobExecInfo.h"

#include "ozf/sync/AutoDereference.h"

#include <ace/ARGV.h>
#include <gtest/gtest.h>

#include <random>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Words = std::vector<std::string>;

std::string lineOf(Words const& arguments) { return JobExecInfo(arguments).getCommandLine().str(); }

Words takenApart(std::string const& line)
{
  ACE_ARGV arguments(line.c_str(), true);
  if (arguments.argv() == nullptr)
    return {};
  return Words(arguments.argv(), arguments.argv() + arguments.argc());
}

TEST(JobExecInfoTest, PlainArgumentsAreSeparatedByOneBlank)
{
  EXPECT_EQ("backup -policy nightly /a/b", lineOf({"backup", "-policy", "nightly", "/a/b"}));
}

TEST(JobExecInfoTest, NoArgumentsMakeAnEmptyLine) { EXPECT_EQ("", lineOf({})); }

TEST(JobExecInfoTest, ArgumentsWithBlanksAndQuotesAreQuoted)
{
  EXPECT_EQ("\"a b\" \"\" \"c\\\"d\" \"e'f\"", lineOf({"a b", "", "c\"d", "e'f"}));
}

TEST(JobExecInfoTest, TheLineReadsBackAsTheSameArguments)
{
  Words const hard[] = {
      {""},
      {"", ""},
      {"a b", "c"},
      {"tab\there", "line\nbreak", "\v\f\r"},
      {"say \"hi\"", "it's", "'", "\"", "\"\"", "''"},
      {"C:\\temp\\", "C:\\program files\\", "\\", "\\\\", "a\\ b\\\\"},
      {"\\\"", "\\'", "\"\\", "'\\", " \\\" \\"},
      {"#"},
      {"#first", "a#b", "#third", "# ", "\\#"},
      {"--flag=a b", "-x", "--", "$", "a$", "${HOME}", "\xC3\xA4 \xE2\x82\xAC"},
  };
  for (Words const& words : hard)
    EXPECT_EQ(words, takenApart(lineOf(words))) << lineOf(words);
}

TEST(JobExecInfoTest, ManyRandomArgumentsReadBackAsTheSame)
{
  std::mt19937 random(7);
  char const alphabet[] = "ab \t\n\"'\\-=#";
  for (int round = 0; round < 5000; ++round)
  {
    Words words(1 + random() % 4);
    for (std::string& word : words)
      for (auto length = random() % 7; length > 0; --length)
        word += alphabet[random() % (sizeof alphabet - 1)];
    ASSERT_EQ(words, takenApart(lineOf(words))) << lineOf(words);
  }
}

TEST(JobExecInfoTest, AVariableOfTheReadersEnvironmentIsReplacedEvenInQuotes)
{
  setenv("TQ_TEST_VARIABLE", "value", 1);
  EXPECT_EQ((Words{"a value"}), takenApart(lineOf({"a $TQ_TEST_VARIABLE"})));
  unsetenv("TQ_TEST_VARIABLE");
  EXPECT_EQ((Words{"a $TQ_TEST_VARIABLE"}), takenApart(lineOf({"a $TQ_TEST_VARIABLE"})));
}

TEST(JobExecInfoTest, TakesWhatTheShifterHasNotPassedAndConsumesIt)
{
  ACE_ARGV given("program -a 1 -b", false);
  int count = given.argc();
  ACE_Arg_Shifter shifter(count, given.argv());
  shifter.ignore_arg(); // the program's name is somebody else's
  JobExecInfo job({"old"});
  job.setValue(shifter, false);
  EXPECT_EQ((Words{"-a", "1", "-b"}), job.getArguments());
  EXPECT_FALSE(shifter.is_anything_left());
}

TEST(JobExecInfoTest, KeepingAddsToTheArgumentsHeld)
{
  ACE_ARGV given("c d", false);
  int count = given.argc();
  ACE_Arg_Shifter shifter(count, given.argv());
  JobExecInfo job({"a", "b"});
  job.setValue(shifter, true);
  EXPECT_EQ((Words{"a", "b", "c", "d"}), job.getArguments());
  EXPECT_EQ("a b c d", job.getCommandLine());
}

} // namespace
