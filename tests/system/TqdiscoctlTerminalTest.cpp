// tqdiscoctl at a terminal, and with explorers that fail.

#include "tests/support/LiveService.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <sstream>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr char BOLD[] = "\033[1m";

class TqdiscoctlTerminalTest : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(m_service.start()) << m_service.log();
    ASSERT_TRUE(eventually(
        [this] {
          return m_service.tqdiscoctl({"items", "-a", "service"}).exitCode == 0;
        },
        std::chrono::seconds(60)))
        << m_service.log();
  }
  void TearDown() override { EXPECT_EQ(m_service.stop(), 0) << m_service.log(); }

  // What a terminal of that width gets to see; words is a command line.
  std::string atTerminal(int columns, std::string const& words,
                         Process::Environment environment = {}) const
  {
    environment["TESSARINE_ROOT"] = m_service.root();
    std::string const command =
        "stty cols " + std::to_string(columns) + "; '" TQ_BIN_DIR "/tqdiscoctl' " + words;
    return runProgram("/usr/bin/script", {"-qec", command, "/dev/null"}, environment).output;
  }

  LiveService m_service{LiveService::WITH_EXPLORERS};
};

std::size_t widestLine(std::string const& text)
{
  std::size_t widest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
  {
    for (char const* sequence : {BOLD, "\033[0m", "\r"})
      for (std::size_t at; (at = line.find(sequence)) != std::string::npos;)
        line.erase(at, std::string(sequence).size());
    widest = std::max(widest, line.size());
  }
  return widest;
}

TEST_F(TqdiscoctlTerminalTest, tablesAndMessagesFitTheTerminal)
{
  for (int const columns : {60, 80, 200})
    for (char const* words : {"items -a filesystem -t client", "items -a service", "status",
                              "query", "filters nobody nothing", "query -m 127.0.0.1:1"})
    {
      std::string const seen = atTerminal(columns, words);
      EXPECT_LE(widestLine(seen), static_cast<std::size_t>(columns)) << words << '\n' << seen;
      EXPECT_GT(widestLine(seen), 40U) << words << '\n' << seen;
    }
}

TEST_F(TqdiscoctlTerminalTest, factsThatDoNotFitAreCountedAndCanBeChosen)
{
  std::string items;
  for (char const* name : {"one", "two", "three"})
    items += std::string("<DISCOVERED Name=\"") + name +
             "\"><ExplorerData Name=\"x\"><Long>a value of more than twenty-four characters"
             "</Long><Short>short</Short>" +
             (*name == 'o' ? "<Rare>once</Rare>" : "") +
             "<Size>1024</Size></ExplorerData></DISCOVERED>";
  writeText(m_service / "payload", "<DiscoveredItems>" + items + "</DiscoveredItems>");
  ASSERT_EQ(m_service.tqdiscoctl({"put", "web1", "disks", m_service / "payload"}).exitCode, 0);

  EXPECT_THAT(atTerminal(30, "items -a disks"),
              AllOf(HasSubstr("ITEM   SHORT     SIZE"), HasSubstr("2 more facts")));
  EXPECT_THAT(atTerminal(30, "items -a disks -c Rare"),
              AllOf(HasSubstr("ITEM   RARE"), Not(HasSubstr("more fact"))));
  EXPECT_THAT(atTerminal(30, "items -a disks --sort Rare"),
              HasSubstr("ITEM   SHORT  RARE     SIZE"))
      << "what they are sorted by";
  EXPECT_THAT(
      atTerminal(60, "items -a disks"),
      AllOf(HasSubstr("LONG"), HasSubstr("RARE"), HasSubstr("a value of more than twenty-...")));
}

TEST_F(TqdiscoctlTerminalTest, noColorLeavesTheTextPlain)
{
  EXPECT_THAT(atTerminal(80, "query", {{"NO_COLOR", ""}}), HasSubstr(BOLD));
  EXPECT_THAT(atTerminal(80, "query", {{"NO_COLOR", "1"}}), Not(HasSubstr("\033")));
}

TEST_F(TqdiscoctlTerminalTest, typesAreExplainedWhereTheyAreListed)
{
  EXPECT_THAT(atTerminal(80, "query"), HasSubstr("client: found by a host's explorers"));
  EXPECT_THAT(m_service.tqdiscoctl({"query"}).errors, Not(HasSubstr("client: ")));
}

class TqdiscoctlFailingTest : public TqdiscoctlTerminalTest
{
protected:
  TqdiscoctlFailingTest() { m_service.addPlugin("discovery_failing", "failing"); }
};

TEST_F(TqdiscoctlFailingTest, statusTellsWhichExplorerFailed)
{
  Outcome const outcome = m_service.tqdiscoctl({"status"});
  EXPECT_EQ(outcome.exitCode, 4) << outcome.output;
  EXPECT_THAT(outcome.errors, HasSubstr("1 explorer has failed"));
  json const status = json::parse(m_service.tqdiscoctl({"status", "--json"}).output);
  std::map<std::string, std::string> results;
  for (auto const& explorer : status["services"][0]["explorers"])
    results[explorer["name"]] = explorer["facts"]["LastResult"];
  EXPECT_EQ(results["broken"], "internal error");
  EXPECT_EQ(results["empty"], "none found");
  EXPECT_EQ(results["host"], "success");
}

} // namespace
