// What the shell offers beside a service.

#include "tests/support/CommandTest.h"

#include <gmock/gmock.h>

#include <regex>
#include <set>
#include <sstream>

namespace
{

using namespace tqtest;
using testing::Contains;
using testing::IsEmpty;
using Offered = std::set<std::string>;

class TqdiscoctlCompletionTest : public CommandTest
{
protected:
  void SetUp() override
  {
    CommandTest::SetUp();
    store("web1", "disks",
          "<DiscoveredItems><DISCOVERED Name=\"a\"><ExplorerData Name=\"x\"><Size>1</Size>"
          "<Used>1</Used></ExplorerData></DISCOVERED></DiscoveredItems>");
    store("web2", "racks", "<DiscoveredItems/>");
  }

  // What bash offers for the last of the words, which the shell has taken apart.
  Offered completed(Words const& words, std::string const& program = "tqdiscoctl")
  {
    Words arguments{"-c",
                    "source '" TQ_SOURCE_DIR "/packaging/completion/" + program +
                        ".bash'; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _" + program +
                        "; printf '%s\\n' \"${COMPREPLY[@]}\"",
                    "bash", TQ_BIN_DIR "/" + program};
    arguments.insert(arguments.end(), words.begin(), words.end());
    Outcome const outcome =
        runProgram("/bin/bash", arguments, {{"TESSARINE_ROOT", m_service.root()}});
    EXPECT_THAT(outcome.errors, IsEmpty());
    Offered offered;
    std::istringstream lines(outcome.output);
    for (std::string line; std::getline(lines, line);)
      if (!line.empty())
        offered.insert(line);
    return offered;
  }

  std::string port() const { return std::to_string(m_service.port()); }
};

TEST_F(TqdiscoctlCompletionTest, goesOnBehindAHostAndItsPort)
{
  EXPECT_EQ(completed({"-m", "127.0.0.1", ":", port(), "qu"}), Offered{"query"});
  EXPECT_EQ(completed({"--master", "[", "::", "1]", ":", port(), "qu"}), Offered{"query"});
  EXPECT_EQ(completed({"query", "-m", "127.0.0.1", ":", port(), "--auth"}), Offered{"--authority"});
  EXPECT_EQ(completed({"-m", "127.0.0.1", ":", "27"}), Offered{});
}

TEST_F(TqdiscoctlCompletionTest, offersHostsAuthoritiesAndFacts)
{
  EXPECT_EQ(completed({"show", ""}), (Offered{"web1", "web2"}));
  EXPECT_EQ(completed({"show", "web1", "d"}), Offered{"disks"});
  EXPECT_EQ(completed({"query", "--subject", "web2"}), Offered{"web2"});
  EXPECT_EQ(completed({"query", "-a", ""}), (Offered{"disks", "racks"}));
  EXPECT_EQ(completed({"items", "-a", "disks", "--sort", ""}), (Offered{"Size", "Used"}));
  EXPECT_EQ(completed({"items", "-a", "disks", "--columns", "S"}), Offered{"Size"});
  EXPECT_EQ(completed({"-m", "127.0.0.1", ":", port(), "filters", "web1", ""}),
            (Offered{"disks", "racks"}));
}

// Pressing the tab key must not run what somebody has stored.
TEST_F(TqdiscoctlCompletionTest, whatIsStoredIsNoCommand)
{
  std::string const touched = m_service / "touched";
  std::string const command = "$(touch " + touched + ")";
  for (std::string const& subject : {command, "x`touch " + touched + "`", std::string("two words"),
                                     std::string("~root"), std::string("a;b")})
    store(subject, "racks", "<DiscoveredItems/>");
  Offered const offered = completed({"show", ""});
  EXPECT_FALSE(std::filesystem::exists(touched));
  EXPECT_EQ(offered,
            (Offered{"web1", "web2", "\\$\\(touch\\ " + touched + "\\)",
                     "x\\`touch\\ " + touched + "\\`", "two\\ words", "\\~root", "a\\;b"}));
  EXPECT_EQ(completed({"show", "two"}), Offered{"two\\ words"});
}

TEST_F(TqdiscoctlCompletionTest, doesNotWaitForAServiceThatHangs)
{
  m_service.process().freeze();
  auto const begin = std::chrono::steady_clock::now();
  EXPECT_EQ(completed({"query", "--subject", ""}), Offered{});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  m_service.process().sendSignal(SIGCONT);
}

// What the command itself tells of its commands and their options, of both shells.
TEST_F(TqdiscoctlCompletionTest, knowsEveryCommandAndOption)
{
  std::string const forZsh = readText(TQ_SOURCE_DIR "/packaging/completion/_tqdiscoctl");
  std::regex const option(R"(--[a-z][a-z-]*)");
  std::vector<Words> commands{{}};
  std::size_t options = 0;
  for (std::size_t number = 0; number < commands.size(); ++number)
  {
    Words const command = commands[number];
    Words help = command;
    help.push_back("--help");
    std::istringstream lines(run(help).output);
    Words words = command;
    words.emplace_back("-");
    Offered const offered = completed(words);
    words.back() = "";
    Offered const below = completed(words);
    bool listsCommands = false;
    for (std::string line; std::getline(lines, line);)
    {
      if (!line.starts_with("  "))
      {
        listsCommands = line == "Commands:";
        continue;
      }
      std::string const names = line.substr(0, line.find("  ", 2));
      if (listsCommands && line[2] != ' ')
      {
        std::string const name = line.substr(2, line.find(' ', 2) - 2);
        EXPECT_THAT(below, Contains(name)) << testing::PrintToString(command);
        std::regex const entry(command.empty() ? "'" + name + ":" : "[( ]" + name + R"((\\:|\)))");
        EXPECT_TRUE(std::regex_search(forZsh, entry)) << name;
        commands.push_back(command);
        commands.back().push_back(name);
      }
      else if (line.starts_with("  -"))
        for (std::sregex_iterator each(names.begin(), names.end(), option), end; each != end;
             ++each, ++options)
        {
          EXPECT_THAT(offered, Contains(each->str())) << testing::PrintToString(command);
          EXPECT_NE(forZsh.find(each->str()), std::string::npos) << each->str();
        }
    }
  }
  EXPECT_GT(commands.size(), 15U);
  EXPECT_GT(options, 60U);
}

TEST_F(TqdiscoctlCompletionTest, knowsTheOptionsOfTheServiceAndOfTheGateway)
{
  for (std::string const program : {"tqdisco", "tqdiscoweb"})
  {
    Offered const offered = completed({""}, program);
    std::string const forZsh = readText(TQ_SOURCE_DIR "/packaging/completion/_" + program);
    std::istringstream lines(
        runProgram(TQ_BIN_DIR "/" + program, {"--help"}, {{"TESSARINE_ROOT", m_service.root()}})
            .output);
    std::size_t count = 0;
    for (std::string word; lines >> word;)
      if (word.starts_with("--"))
      {
        ++count;
        EXPECT_THAT(offered, Contains(word)) << program;
        EXPECT_NE(forZsh.find(word), std::string::npos) << program << ' ' << word;
      }
    EXPECT_GT(count, 3U) << program;
  }
}

TEST_F(TqdiscoctlCompletionTest, offersTheGatewayFoldersForItsPage)
{
  std::filesystem::create_directory(m_service / "pages");
  std::string const begin = m_service / "pa";
  EXPECT_EQ(completed({"--page", begin}, "tqdiscoweb"), Offered{begin + "ges"});
  EXPECT_EQ(completed({"--log-level", ""}, "tqdiscoweb"), (Offered{"0", "1", "4", "6"}));
}

} // namespace
