// What "watch" holds for news, and that commands go when their reader goes.

#include "tests/support/CommandTest.h"

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

constexpr int BY_SIGPIPE = 128 + SIGPIPE;

class TqdiscoctlWatchTest : public CommandTest
{
protected:
  static std::string item(std::string const& name, std::string const& facts)
  {
    return "<DISCOVERED Name=\"" + name + "\"><ExplorerData Name=\"x\">" + facts +
           "</ExplorerData></DISCOVERED>";
  }

  static std::string document(std::string const& items)
  {
    return "<DiscoveredItems>" + items + "</DiscoveredItems>";
  }

  // What a service tells of itself.
  static std::string signOfLife(std::string const& result, std::string const& lastRun)
  {
    return document(item("web9", "<Kind>service</Kind><Role>client</Role>") +
                    item("disks", "<Kind>push</Kind><LastRun>" + lastRun +
                                      "</LastRun><LastResult>" + result + "</LastResult>"));
  }

  // Times are whole seconds, and what has none that differ is the same to a watch.
  static void awaitNextSecond()
  {
    auto const begin = std::time(nullptr);
    while (std::time(nullptr) == begin)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  std::unique_ptr<Process> watch(Words const& more = {})
  {
    Words words{"watch", "--interval", "1"};
    words.insert(words.end(), more.begin(), more.end());
    return std::make_unique<Process>(
        TQ_BIN_DIR "/tqdiscoctl", words,
        Process::Environment{{"TESSARINE_ROOT", m_service.root()}, {"LC_ALL", "C.UTF-8"}});
  }

  static bool says(Process& watcher, std::string const& text)
  {
    return eventually([&] { return watcher.output().find(text) != std::string::npos; },
                      std::chrono::seconds(30));
  }

  // The exit code of the command when what reads its output has gone.
  int withoutReader(std::string const& words)
  {
    std::string const line =
        "'" TQ_BIN_DIR "/tqdiscoctl' " + words + " | true; exit ${PIPESTATUS[0]}";
    return runProgram("/bin/bash", {"-c", line}, {{"TESSARINE_ROOT", m_service.root()}}).exitCode;
  }
};

TEST_F(TqdiscoctlWatchTest, aCommandThatOnlyReadsGoesWhenItsReaderHasGone)
{
  store("web1", "disks", document(item("a", "<Size>1</Size>")));
  for (char const* words : {"watch --interval 3600", "watch --interval 3600 --json"})
    EXPECT_EQ(withoutReader(words), BY_SIGPIPE) << words;
  m_service.process().freeze();
  for (char const* words : {"status", "query", "hosts --json", "items", "items --json",
                            "show web1 disks", "filters web1 disks", "watch --json"})
    EXPECT_EQ(withoutReader(std::string(words) + " --timeout 3600"), BY_SIGPIPE) << words;
  m_service.process().sendSignal(SIGCONT);
}

TEST_F(TqdiscoctlWatchTest, whatWasBegunIsDoneAlthoughTheReaderHasGone)
{
  // The payload comes when the reader has long gone.
  std::string const line = "(sleep 0.5; echo '<DiscoveredItems/>') | '" TQ_BIN_DIR
                           "/tqdiscoctl' put web1 disks | true; exit ${PIPESTATUS[1]}";
  EXPECT_EQ(runProgram("/bin/bash", {"-c", line}, {{"TESSARINE_ROOT", m_service.root()}}).exitCode,
            BY_SIGPIPE);
  EXPECT_EQ(run({"show", "web1", "disks", "--raw"}).output, "<DiscoveredItems/>\n");
}

TEST_F(TqdiscoctlWatchTest, changesAreToldWithTheOldAndTheNewValue)
{
  store("web1", "disks",
        document(item("/", "<Used>16106127360</Used><State>good</State>") + item("/old", "")));
  auto const people = watch();
  auto const program = watch({"--json"});
  ASSERT_TRUE(people->awaitError("Watching 1 discovery"));
  // The JSON side says nothing before there is news: both see the second change.
  awaitNextSecond();
  store("web1", "disks",
        document(item("/", "<Used>17179869184</Used><State>good</State><Label>l</Label>")));
  EXPECT_TRUE(says(*people, "changed  web1  disks (external)\n")) << people->output();
  EXPECT_TRUE(says(*people, "/: Label l (new)\n")) << people->output();
  EXPECT_THAT(people->output(),
              AllOf(HasSubstr("/old: gone\n"), HasSubstr("/: Used 15 GiB \xE2\x86\x92 16 GiB\n"),
                    Not(HasSubstr("State"))));
  awaitNextSecond();
  store("web1", "disks",
        document(item("/", "<Used>17179870208</Used><State>bad</State><Label>l</Label>")));
  EXPECT_TRUE(says(*people, "/: Used 16 GiB (+1.0 KiB)\n")) << people->output();
  ASSERT_TRUE(says(*program, "\"State\"")) << program->output();
  std::istringstream lines(program->output());
  json last;
  for (std::string line; std::getline(lines, line);)
    last = json::parse(line, nullptr, false);
  EXPECT_THAT(last["changes"], testing::Contains(json({{"item", "/"},
                                                       {"change", "changed"},
                                                       {"fact", "State"},
                                                       {"old", "good"},
                                                       {"new", "bad"}})));
}

TEST_F(TqdiscoctlWatchTest, aSignOfLifeIsNewsOnlyWhenAskedFor)
{
  Words const client{"--type", "client"};
  store("web9", "service", signOfLife("success", "2026-01-01T00:00:00Z"), client);
  auto const usual = watch();
  auto const all = watch({"--heartbeats"});
  ASSERT_TRUE(usual->awaitError("Watching 1 discovery"));
  ASSERT_TRUE(all->awaitError("Watching 1 discovery"));
  awaitNextSecond();
  store("web9", "service", signOfLife("success", "2026-01-01T00:01:00Z"), client);
  EXPECT_TRUE(says(*all, "changed  web9  service (client)\n")) << all->output();
  EXPECT_TRUE(says(*all, "disks: LastRun 2026-01-01T00:00:00Z \xE2\x86\x92 2026-01-01T00:01:00Z"))
      << all->output();
  awaitNextSecond();
  store("web9", "service", signOfLife("internal error", "2026-01-01T00:02:00Z"), client);
  EXPECT_TRUE(says(*usual, "disks: LastResult success \xE2\x86\x92 internal error\n"))
      << usual->output();
  EXPECT_EQ(occurrences(usual->output(), "changed"), 1U) << usual->output();
  EXPECT_THAT(usual->output(), Not(HasSubstr("LastRun")));
}

TEST_F(TqdiscoctlWatchTest, aHostThatFallsSilentIsSaidAsThat)
{
  Words const client{"--type", "client"};
  store("web9", "disks", document(""), client);
  store("web9", "service", signOfLife("success", "-"), {"--type", "client", "--expires-in", "4s"});
  auto const all = watch();
  auto const disks = watch({"--authority", "disks", "--json"});
  ASSERT_TRUE(all->awaitError("Watching 2 discoveries")) << all->errors();
  EXPECT_TRUE(says(*all, "silent   web9  its service has not told of itself for "))
      << all->output();
  EXPECT_TRUE(says(*disks, "\"change\":\"silent\"")) << disks->output();
  EXPECT_THAT(all->output(), Not(HasSubstr("gone")));
  store("web9", "service", signOfLife("success", "-"), client);
  EXPECT_TRUE(says(*all, "back     web9")) << all->output();
  EXPECT_TRUE(says(*disks, "\"change\":\"back\"")) << disks->output();
  EXPECT_THAT(all->output(), Not(HasSubstr("added")));
}

// Its files are taken away rather than waited for.
TEST_F(TqdiscoctlWatchTest, aHostOfWhichNothingIsKnownAnyMoreIsNotBackButNew)
{
  Words const client{"--type", "client"};
  auto const forget = [this](std::string const& authority)
  {
    for (char const* const suffix : {"xml", "dat"})
      ASSERT_TRUE(
          std::filesystem::remove(m_service.database() + "/2 " + authority + " web9." + suffix));
  };
  store("web9", "disks", document(""), client);
  store("web9", "service", signOfLife("success", "-"), client);
  auto const watcher = watch();
  ASSERT_TRUE(watcher->awaitError("Watching 2 discoveries")) << watcher->errors();
  forget("service");
  EXPECT_TRUE(says(*watcher, "silent   web9")) << watcher->output();
  forget("disks");
  EXPECT_TRUE(says(*watcher, "gone     web9  disks (client)\n")) << watcher->output();
  store("web9", "service", signOfLife("success", "-"), client);
  EXPECT_TRUE(says(*watcher, "added    web9  service (client)\n")) << watcher->output();
  EXPECT_THAT(watcher->output(), Not(HasSubstr("back")));
}

} // namespace
