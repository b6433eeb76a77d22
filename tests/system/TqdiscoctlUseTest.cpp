// What somebody new to tqdiscoctl meets first: help, mistakes, completion; and
// that the manual says what is there.

#include "tests/support/LiveService.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <regex>
#include <set>
#include <sstream>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using Words = std::vector<std::string>;
using Names = std::set<std::string>;

std::vector<Words> const COMMANDS{{"status"},
                                  {"query"},
                                  {"hosts"},
                                  {"show"},
                                  {"items"},
                                  {"filters"},
                                  {"watch"},
                                  {"metrics"},
                                  {"report"},
                                  {"sql"},
                                  {"put"},
                                  {"push"},
                                  {"stop"},
                                  {"db"},
                                  {"db", "list"},
                                  {"db", "show"},
                                  {"db", "verify"},
                                  {"db", "forget"},
                                  {"tls"},
                                  {"tls", "check"},
                                  {"explorer"},
                                  {"explorer", "list"},
                                  {"explorer", "enable"},
                                  {"explorer", "test"}};

std::string joined(Words const& words)
{
  std::string text;
  for (auto const& word : words)
    text += (text.empty() ? "" : " ") + word;
  return text;
}

Outcome run(Words const& words)
{
  TempDir const root;
  return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", root.path()}});
}

std::string helpOf(Words words)
{
  words.push_back("--help");
  Outcome const outcome = run(words);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.errors, IsEmpty());
  return outcome.output;
}

// The long options that a help text lists in its first column.
Names optionsIn(std::string const& help)
{
  Names names;
  std::regex const option("^  (?:-[a-z], )?(--[a-z-]+)");
  std::istringstream lines(help);
  for (std::string line; std::getline(lines, line);)
    if (std::smatch match; std::regex_search(line, match, option) && match[1] != "--help")
      names.insert(match[1]);
  return names;
}

std::string sourceText(std::string const& path) { return readText(TQ_SOURCE_DIR "/" + path); }

TEST(TqdiscoctlUseTest, helpSaysHowEachCommandIsCalled)
{
  EXPECT_THAT(helpOf({}), AllOf(HasSubstr("Usage: tqdiscoctl [OPTION...] COMMAND\n"),
                                HasSubstr("Examples:\n"), HasSubstr("Exit codes: 0 found")));
  for (Words const& command : COMMANDS)
  {
    std::string const help = helpOf(command);
    EXPECT_THAT(help, HasSubstr("\nUsage: tqdiscoctl " + joined(command))) << help;
    EXPECT_THAT(help, Not(HasSubstr("Excludes")));
    EXPECT_THAT(help, Not(HasSubstr(":INT")));
    EXPECT_THAT(help,
                HasSubstr(command[0] == "db" ? "-d, --directory PATH" : "--master HOST[:PORT]"))
        << joined(command);
  }
  EXPECT_THAT(helpOf({"show"}), HasSubstr("Usage: tqdiscoctl show SUBJECT AUTHORITY [OPTION...]"));
  EXPECT_THAT(helpOf({"put"}),
              AllOf(HasSubstr("put SUBJECT AUTHORITY [FILE]"), HasSubstr("(default: 1h)")));
  EXPECT_THAT(helpOf({"db"}), HasSubstr("Usage: tqdiscoctl db [OPTION...] COMMAND\n"));
}

TEST(TqdiscoctlUseTest, helpFitsTheTerminal)
{
  std::vector<Words> all = COMMANDS;
  all.push_back({});
  for (int const columns : {60, 80, 200})
    for (Words const& command : all)
    {
      std::string const line = "stty cols " + std::to_string(columns) +
                               "; '" TQ_BIN_DIR "/tqdiscoctl' " + joined(command) + " --help";
      std::istringstream lines(
          runProgram("/usr/bin/script", {"-qec", line, "/dev/null"}, {{"TESSARINE_ROOT", "/short"}})
              .output);
      for (std::string text; std::getline(lines, text);)
      {
        if (text.ends_with('\r'))
          text.pop_back();
        EXPECT_LE(text.size(), static_cast<std::size_t>(std::min(columns, 100)))
            << joined(command) << ": " << text;
        EXPECT_FALSE(text.ends_with(' ')) << joined(command) << ": " << text;
      }
    }
}

TEST(TqdiscoctlUseTest, mistakesNameTheHelpThatHasMore)
{
  auto const mistake = [](Words const& words)
  {
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 2) << joined(words);
    EXPECT_THAT(outcome.output, IsEmpty()) << joined(words);
    EXPECT_THAT(outcome.errors, StartsWith("tqdiscoctl: ")) << joined(words);
    return outcome.errors;
  };
  EXPECT_THAT(mistake({}),
              AllOf(HasSubstr("a command is missing"), HasSubstr("\"tqdiscoctl --help\"")));
  EXPECT_THAT(mistake({"quarry"}), HasSubstr("\"quarry\" is no command; \"tqdiscoctl --help\""));
  EXPECT_THAT(mistake({"show", "web1"}),
              AllOf(HasSubstr("AUTHORITY"), HasSubstr("\"tqdiscoctl show --help\"")));
  EXPECT_THAT(mistake({"query", "extra"}),
              AllOf(HasSubstr("extra"), HasSubstr("\"tqdiscoctl query --help\"")));
  EXPECT_THAT(mistake({"query", "--bogus"}), HasSubstr("--bogus"));
  EXPECT_THAT(mistake({"watch", "--looks", "0"}),
              AllOf(HasSubstr("--looks"), HasSubstr("\"tqdiscoctl watch --help\"")));
  EXPECT_THAT(mistake({"show", "a", "b", "--json", "--xml"}), HasSubstr("--json excludes --xml"));
  EXPECT_THAT(mistake({"db"}), HasSubstr("a command is missing; \"tqdiscoctl db --help\""));
  EXPECT_THAT(mistake({"db", "lost"}),
              HasSubstr("\"lost\" is no command; \"tqdiscoctl db --help\""));
  EXPECT_THAT(mistake({"query", "--timeout", "soon"}), HasSubstr("--timeout"));
  EXPECT_THAT(mistake({"que\033[2Jry"}), Not(HasSubstr("\033")));
}

TEST(TqdiscoctlUseTest, theManualAndBothCompletionsKnowEveryOptionAndCommand)
{
  std::string const manual = sourceText("docs/man/tqdiscoctl.8.scd");
  std::string const bash = sourceText("packaging/completion/tqdiscoctl.bash");
  std::string const zsh = sourceText("packaging/completion/_tqdiscoctl");
  std::size_t count = 0;
  for (Words const& command : COMMANDS)
  {
    EXPECT_THAT(manual, HasSubstr("*" + command[0])) << joined(command);
    EXPECT_THAT(bash, HasSubstr(command.back()));
    EXPECT_THAT(zsh, HasSubstr(command.back()));
    for (std::string const& option : optionsIn(helpOf(command)))
    {
      ++count;
      EXPECT_THAT(manual, HasSubstr(option)) << joined(command);
      EXPECT_THAT(bash, HasSubstr(option)) << joined(command);
      EXPECT_THAT(zsh, HasSubstr(option)) << joined(command);
    }
  }
  EXPECT_GT(count, 40U);
}

// What bash offers for the last of the words.
Names completed(Words const& words)
{
  Words arguments{"-c",
                  "source " TQ_SOURCE_DIR
                  "/packaging/completion/tqdiscoctl.bash; COMP_WORDS=(\"$@\"); "
                  "COMP_CWORD=$(($# - 1)); _tqdiscoctl; printf '%s\\n' \"${COMPREPLY[@]}\"",
                  "bash", "tqdiscoctl"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  Outcome const outcome = runProgram("/bin/bash", arguments);
  EXPECT_THAT(outcome.errors, IsEmpty()) << joined(words);
  Names offered;
  std::istringstream lines(outcome.output);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty())
      offered.insert(line);
  return offered;
}

TEST(TqdiscoctlUseTest, bashCompletesCommandsOptionsAndTypes)
{
  EXPECT_EQ(completed({"s"}), (Names{"status", "show", "sql", "stop"}));
  EXPECT_EQ(completed({"--master", "web1", "qu"}), Names{"query"});
  EXPECT_EQ(completed({"query", "--au"}), Names{"--authority"});
  EXPECT_EQ(completed({"query", "-t", "ex"}), Names{"external"});
  EXPECT_EQ(completed({"query", "-t", "re"}), Names{"remotepull"});
  EXPECT_EQ(completed({"put", "web1", "disks", "--type", "re"}), Names{});
  EXPECT_EQ(completed({"put", "-t", ""}), (Names{"server", "client", "external"}));
  EXPECT_EQ(completed({"db", "--directory", "/tmp", "sh"}), Names{"show"});
  EXPECT_EQ(completed({"db", ""}),
            (Names{"list", "show", "verify", "forget", "-d", "--directory", "-m", "--master",
                   "--timeout", "--tls", "--tls-certificate", "--tls-key", "--tls-ca", "-v",
                   "--verbose", "-h", "--help"}));
  for (Words const& command : COMMANDS)
  {
    Words words = command;
    words.push_back("--");
    Names const offered = completed(words);
    for (std::string const& option : optionsIn(helpOf(command)))
      EXPECT_THAT(offered, Contains(option)) << joined(command);
  }
}

TEST(TqdiscoctlUseTest, outputThatCannotBeWrittenIsAFailure)
{
  TempDir const root;
  Outcome const outcome = runProgram(
      "/bin/sh", {"-c", "\"$0\" --help >/dev/full; echo $? >&2", TQ_BIN_DIR "/tqdiscoctl"},
      {{"TESSARINE_ROOT", root.path()}});
  EXPECT_THAT(outcome.errors,
              AllOf(HasSubstr("cannot write to standard output: No space left on device"),
                    EndsWith("1\n")));
}

// ---- the documented JSON ----

// The members that the tables of a section list in their first column.
Names documented(std::string const& section, std::size_t table = 0)
{
  std::istringstream lines(sourceText("docs/tqdiscoctl-json.md"));
  std::string const heading = "## `" + section + "`";
  bool inside = false;
  bool inTable = false;
  std::size_t tables = 0;
  Names names;
  std::regex const quoted("`([A-Za-z]+)`");
  for (std::string line; std::getline(lines, line);)
  {
    if (line.starts_with("## "))
      inside = line == heading;
    if (!inside)
      continue;
    if (!line.starts_with("|"))
    {
      tables += inTable ? 1 : 0;
      inTable = false;
      continue;
    }
    inTable = true;
    std::string const cell = line.substr(0, line.find('|', 1));
    if (tables == table)
      for (std::sregex_iterator match(cell.begin(), cell.end(), quoted), end; match != end; ++match)
        names.insert((*match)[1]);
  }
  EXPECT_FALSE(names.empty()) << section;
  return names;
}

Names membersOf(json const& object)
{
  Names names;
  for (auto const& [name, value] : object.items())
    names.insert(name);
  return names;
}

Names both(Names names, Names const& more)
{
  names.insert(more.begin(), more.end());
  return names;
}

class TqdiscoctlJsonTest : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(m_service.start()) << m_service.log();
    ASSERT_TRUE(eventually(
        [this]
        {
          return m_service.tqdiscoctl({"items", "-a", "service"}).exitCode == 0 &&
                 m_service.tqdiscoctl({"items", "-a", "host"}).exitCode == 0;
        },
        std::chrono::seconds(60)))
        << m_service.log();
  }

  json read(Words words)
  {
    words.push_back("--json");
    Outcome const outcome = m_service.tqdiscoctl(words);
    EXPECT_EQ(outcome.exitCode, 0) << joined(words) << ": " << outcome.errors;
    EXPECT_TRUE(json::accept(outcome.output)) << outcome.output;
    return json::parse(outcome.output, nullptr, false);
  }

  LiveService m_service{LiveService::WITH_EXPLORERS};
};

TEST_F(TqdiscoctlJsonTest, aColumnThatNoItemHasIsTold)
{
  Outcome const outcome = m_service.tqdiscoctl({"items", "-a", "host", "-c", "Nope,osid"});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_THAT(outcome.errors,
              AllOf(HasSubstr("\"Nope\""), Not(HasSubstr("osid")), HasSubstr("--details")));
}

TEST_F(TqdiscoctlJsonTest, descriptionsGoOnInTheNextLineOfANarrowTerminal)
{
  std::string const line = std::string("stty cols 60; '" TQ_BIN_DIR "/tqdiscoctl' filters ") +
                           LiveService::NAME + " filesystem";
  std::string const seen = runProgram("/usr/bin/script", {"-qec", line, "/dev/null"},
                                      {{"TESSARINE_ROOT", m_service.root()}})
                               .output;
  EXPECT_THAT(seen, AllOf(HasSubstr("Root"), Not(HasSubstr("..."))));
  EXPECT_THAT(seen, testing::ContainsRegex("Root +text +-  +The folder of the file system\r\n"
                                           " +that is mounted\r\n"));
  EXPECT_THAT(m_service.tqdiscoctl({"filters", LiveService::NAME, "filesystem"}).output,
              HasSubstr("The folder of the file system that is mounted\n"));
}

TEST_F(TqdiscoctlJsonTest, hasTheMembersThatAreDocumentedAndNoOthers)
{
  Names const record = documented("query");
  Names const collection = both(record, documented("show"));
  Names const item = documented("show", 1);
  EXPECT_EQ(membersOf(read({"query"})[0]), record);
  EXPECT_EQ(membersOf(read({"hosts"})[0]), documented("hosts"));
  json const shown = read({"show", LiveService::NAME, "host"});
  EXPECT_EQ(membersOf(shown), collection);
  EXPECT_EQ(membersOf(shown["items"][0]), item);
  EXPECT_TRUE(shown["items"][0]["facts"]["Processors"].is_number()) << shown;
  EXPECT_EQ(membersOf(shown["schema"]["Memory"]), (Names{"type", "unit", "description"}));
  EXPECT_EQ(
      membersOf(read({"show", LiveService::NAME, "host", "--fact-list"})["items"][0]["facts"][0]),
      (Names{"name", "value"}));
  EXPECT_EQ(membersOf(read({"items", "-a", "host", "--count"})), Names{"items"});
  json const listed = json::parse(
      m_service.tqdiscoctl({"items", "-a", "host", "--json-lines"}).output, nullptr, false);
  EXPECT_EQ(membersOf(listed), both(record, item));
  EXPECT_EQ(membersOf(read({"items", "-a", "host"})[0]), collection);
  EXPECT_EQ(membersOf(read({"filters", LiveService::NAME, "filesystem"})[0]),
            (Names{"name", "type", "unit", "description"}));

  json const status = read({"status"});
  EXPECT_EQ(membersOf(status), documented("status"));
  EXPECT_EQ(membersOf(status["services"][0]),
            both(record, {"complete", "service", "explorers", "limits", "clones"}));
  EXPECT_EQ(membersOf(status["services"][0]["service"]), (Names{"name", "facts"}));

  writeText(m_service / "payload", "<DiscoveredItems/>");
  EXPECT_EQ(membersOf(read({"put", "web1", "disks", m_service / "payload"})),
            (Names{"subject", "authority", "type", "typeName", "payloadBytes", "expiresTime",
                   "described"}));
  EXPECT_EQ(membersOf(read({"push"})), (Names{"service", "all", "now"}));
  EXPECT_EQ(membersOf(read({"explorer", "list"})["explorers"][0]), documented("explorer list"));
  Names inFiles = record;
  inFiles.erase("onDemand");
  Names const stored = both(inFiles, {"collectionType", "storage", "priority", "payloadBytes",
                                      "expired", "metadataFile", "payloadFile"});
  EXPECT_EQ(membersOf(read({"db", "list"})[0]), stored);
  EXPECT_EQ(membersOf(read({"db", "show", "web1", "disks"})), both(stored, {"payload"}));
  EXPECT_EQ(membersOf(read({"db", "verify"})),
            (Names{"directory", "discoveries", "temporaryFiles", "problems"}));

  Process watcher(TQ_BIN_DIR "/tqdiscoctl", {"watch", "--interval", "1", "--json"},
                  {{"TESSARINE_ROOT", m_service.root()}});
  int number = 0;
  ASSERT_TRUE(eventually(
      [&]
      {
        std::string const subject = "new" + std::to_string(number++);
        read({"put", subject, "disks", m_service / "payload"});
        return watcher.output().find('\n') != std::string::npos;
      },
      std::chrono::seconds(60)));
  std::string const line = watcher.output().substr(0, watcher.output().find('\n'));
  EXPECT_EQ(membersOf(json::parse(line)), documented("watch"));

  EXPECT_EQ(membersOf(read({"stop"})), (Names{"service", "stopped"}));
  ASSERT_TRUE(m_service.process().wait());
}

} // namespace
