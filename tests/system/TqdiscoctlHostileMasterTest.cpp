// What a master that means no good can do to tqdiscoctl.

#include "tests/support/CommandTest.h"
#include "tests/support/FreePort.h"

#include <gmock/gmock.h>

#include <chrono>
#include <sys/resource.h>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class TqdiscoctlHostileMasterTest : public testing::Test
{
protected:
  TqdiscoctlHostileMasterTest()
  {
    std::filesystem::create_directories(m_root / "etc");
    writeText(m_root / "etc/tq.conf",
              "SERVER = 127.0.0.1\nCLIENT_NAME = evil\nORB_BIND = 127.0.0.1\n"
              "ORB_PORT.DiscoveryService = " +
                  std::to_string(freePort()) + "\n");
  }

  // number 0: without end.
  void serve(std::string const& number, std::string const& inAPage, std::string const& pause)
  {
    m_master = std::make_unique<Process>(TQ_BIN_DIR "/hostile_master",
                                         Words{m_root.path(), number, inAPage, pause});
    ASSERT_TRUE(
        eventually([this] { return m_master->output().find("serving") != std::string::npos; }))
        << m_master->errors();
  }

  Outcome run(Words const& words) const
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", m_root.path()}});
  }

  TempDir m_root;
  std::unique_ptr<Process> m_master;
};

// The most that a child which has ended ever had in memory, in MiB.
[[maybe_unused]] long largestChild()
{
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return usage.ru_maxrss / 1024;
}

constexpr long MOST_MEMORY = 256; // MiB, sanitizers apart

} // namespace

TEST_F(TqdiscoctlHostileMasterTest, everyCommandEndsInTimeHoweverLongTheListIs)
{
  serve("0", "1", "20");
  for (Words const& words : {Words{"query", "--json"}, Words{"items"},
                             Words{"filters", "host1", "service"}, Words{"watch"}})
  {
    Words all{"--timeout", "1"};
    all.insert(all.end(), words.begin(), words.end());
    auto const begin = std::chrono::steady_clock::now();
    Outcome const outcome = run(all);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15)) << words[0];
    EXPECT_EQ(outcome.exitCode, 1) << words[0];
    EXPECT_THAT(outcome.errors, AllOf(HasSubstr("gave up after 1 second"), HasSubstr("--timeout")))
        << words[0];
  }
}

TEST_F(TqdiscoctlHostileMasterTest, collectionsThatDoNotEndAreGivenUpInTime)
{
  serve("2", "1", "20");
  for (Words const& words : {Words{"items"}, Words{"show", "host1", "service", "--raw"}})
  {
    Words all{"--timeout", "1"};
    all.insert(all.end(), words.begin(), words.end());
    auto const begin = std::chrono::steady_clock::now();
    Outcome const outcome = run(all);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15)) << words[0];
    EXPECT_EQ(outcome.exitCode, 1) << words[0] << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("gave up after 1 second")) << words[0];
  }
}

TEST_F(TqdiscoctlHostileMasterTest, aMillionRecordsAreMoreThanACommandTakes)
{
  serve("1000000", "5000", "0");
  Outcome const outcome = run({"query", "--json"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("choose with --subject"), Not(HasSubstr("gave up"))));
#ifdef TQ_PLAIN_BUILD
  EXPECT_LT(largestChild(), MOST_MEMORY);
#endif
}

TEST_F(TqdiscoctlHostileMasterTest, listsThatAreTakenCostNoMore)
{
  serve("60000", "5000", "0");
  for (Words const& words : {Words{"query"}, Words{"hosts", "--json"}})
  {
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 0) << words[0] << outcome.errors;
    EXPECT_GE(occurrences(outcome.output, "host5999"), 11U) << words[0];
  }
#ifdef TQ_PLAIN_BUILD
  EXPECT_LT(largestChild(), MOST_MEMORY);
#endif
}
