// tqdiscoctl against a running service.

#include "tests/support/CommandTest.h"
#include "tests/support/NoHost.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class TqdiscoctlTest : public CommandTest
{
protected:
  using CommandTest::CommandTest;

  // Some tests have the command stop it.
  void TearDown() override
  {
    if (m_service.process().running())
      CommandTest::TearDown();
  }
};

std::string disk(std::string const& name, std::string const& size)
{
  return "<DISCOVERED Name=\"" + name + "\"><ExplorerData Name=\"disks\"><Path>" + name +
         "</Path><Size>" + size + "</Size></ExplorerData></DISCOVERED>";
}

TEST_F(TqdiscoctlTest, storesAPayloadAndShowsIt)
{
  store("web1", "disks", itemsDocument(disk("/dev/sda", "1024")), {"--expires-in", "2h"});

  json const records = runJson({"query"});
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0]["subject"], "web1");
  EXPECT_EQ(records[0]["authority"], "disks");
  EXPECT_EQ(records[0]["typeName"], "external");
  EXPECT_EQ(records[0]["onDemand"], false);
  EXPECT_TRUE(records[0]["discoveryTime"].is_string());

  Outcome const list = run({"query"});
  EXPECT_EQ(list.exitCode, 0);
  EXPECT_THAT(list.output, AllOf(HasSubstr("SUBJECT"), HasSubstr("web1"), HasSubstr("external"),
                                 HasSubstr("1h 59m")));

  Outcome const shown = run({"show", "web1", "disks"});
  EXPECT_EQ(shown.exitCode, 0) << shown.errors;
  EXPECT_THAT(shown.output, AllOf(HasSubstr("Subject    web1"), HasSubstr("/dev/sda"),
                                  HasSubstr("  Size  1.0 KiB")));

  json const collection = runJson({"show", "web1", "disks"});
  EXPECT_EQ(collection["complete"], true);
  ASSERT_EQ(collection["items"].size(), 1U);
  EXPECT_EQ(collection["items"][0]["name"], "/dev/sda");
  EXPECT_EQ(collection["items"][0]["facts"]["Size"], 1024);
}

TEST_F(TqdiscoctlTest, printsThePayloadIndentedAndAsItIs)
{
  std::string const payload = itemsDocument(disk("/dev/sda", "1024"));
  store("web1", "disks", payload);
  EXPECT_EQ(run({"show", "web1", "disks", "--raw"}).output, payload);
  EXPECT_THAT(run({"show", "web1", "disks", "--xml"}).output,
              HasSubstr("  <DISCOVERED Name=\"/dev/sda\">\n"));
}

TEST_F(TqdiscoctlTest, aPatternFindsWhatItSays)
{
  for (char const* subject : {"web1", "web2", "mail1", "intraweb"})
    store(subject, "disks", itemsDocument(""));
  auto const find = [this](std::string const& pattern) {
    return subjectsOf(runJson({"query", "--subject", pattern}));
  };
  EXPECT_THAT(find("web*"), ElementsAre("web1", "web2"));
  EXPECT_THAT(find("*web"), ElementsAre("intraweb"));
  EXPECT_THAT(find("*1"), ElementsAre("mail1", "web1"));
  EXPECT_THAT(find("w*1"), ElementsAre("web1"));
  EXPECT_THAT(find("web1"), ElementsAre("web1"));
  EXPECT_THAT(find("*"), ElementsAre("intraweb", "mail1", "web1", "web2"));

  json const none = runJson({"query", "--subject", "we"}, 3);
  EXPECT_EQ(none, json::array());
  EXPECT_THAT(run({"query", "--subject", "we"}).errors, HasSubstr("tqdiscoctl query"));
}

TEST_F(TqdiscoctlTest, typesTellDiscoveriesOfOneNameApart)
{
  store("web1", "disks", itemsDocument(disk("a", "1")), {"--type", "client"});
  store("web1", "disks", itemsDocument(disk("b", "1")), {"--type", "server"});
  Outcome const both = run({"show", "web1", "disks"});
  EXPECT_EQ(both.exitCode, 2);
  EXPECT_THAT(both.errors,
              AllOf(HasSubstr("--type"), HasSubstr("(server)"), HasSubstr("(client)")));
  EXPECT_EQ(runJson({"show", "web1", "disks", "--type", "server"})["items"][0]["name"], "b");
  EXPECT_EQ(runJson({"query", "--type", "client"}).size(), 1U);
  Outcome const wrong = run({"query", "--type", "clinet"});
  EXPECT_EQ(wrong.exitCode, 2);
  EXPECT_THAT(wrong.errors, HasSubstr("remotepull"));
}

TEST_F(TqdiscoctlTest, aQueryChoosesAmongStoredItems)
{
  store("web1", "disks", itemsDocument(disk("small", "1024") + disk("large", "20000000000")));
  store("web2", "disks", itemsDocument(disk("middle", "2000000000")));
  json const found = runJson({"items", "--where", "SIZE > 10G"});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0]["subject"], "web1");
  ASSERT_EQ(found[0]["items"].size(), 1U);
  EXPECT_EQ(found[0]["items"][0]["name"], "large");

  EXPECT_EQ(runJson({"show", "web1", "disks", "--where", "path like \"s*\""})["items"][0]["name"],
            "small");
  Outcome const none = run({"items", "--where", "size > 1T"});
  EXPECT_EQ(none.exitCode, 3);
  EXPECT_THAT(none.output, IsEmpty());
}

TEST_F(TqdiscoctlTest, aMistakeInAQueryIsToldWithItsPlace)
{
  Outcome const outcome = run({"items", "--where", "size > "});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("line 1, column 8"), HasSubstr("expected a value")));
}

TEST_F(TqdiscoctlTest, tablesShowEveryFactWhenThereIsNoTerminal)
{
  store("web1", "disks",
        itemsDocument("<DISCOVERED Name=\"one\"><ExplorerData Name=\"x\"><A>1</A><B>2</B>"
                      "<Outer><Inner>deep</Inner></Outer></ExplorerData></DISCOVERED>"
                      "<DISCOVERED Name=\"two\"><ExplorerData Name=\"x\">plain text"
                      "</ExplorerData></DISCOVERED>"));
  Outcome const table = run({"items"});
  EXPECT_THAT(table.output, AllOf(HasSubstr("disks\nITEM  A  B  OUTER.INNER\n"),
                                  HasSubstr("one   1  2  deep\n"), HasSubstr("two   -  -  -\n")));
  EXPECT_THAT(table.output, Not(HasSubstr("\033")));
  EXPECT_THAT(run({"items", "--columns", "b,A"}).output, HasSubstr("ITEM  B  A\n"));
  EXPECT_THAT(run({"items", "--details"}).output,
              AllOf(HasSubstr("  Outer.Inner  deep\n"), HasSubstr("two\n  plain text\n")));
}

TEST_F(TqdiscoctlTest, whatExplorersWroteCannotMoveTheCursor)
{
  store("web1", "disks",
        itemsDocument(disk("\xc2\x9b"
                           "2J&#9;x",
                           "a\xc2\x85z")));
  std::string const output = run({"items"}).output;
  EXPECT_THAT(output, AllOf(HasSubstr("%C2%9B2J"), HasSubstr("a%C2%85z")));
}

TEST_F(TqdiscoctlTest, aPayloadThatIsNoXmlIsRefusedUnlessToldOtherwise)
{
  writeText(m_service / "bad", "<DiscoveredItems><DISCOVERED Name=\"a\"/>");
  Outcome const refused = run({"put", "web1", "disks", m_service / "bad"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.errors, AllOf(HasSubstr("not well-formed"), HasSubstr("--unchecked")));
  EXPECT_EQ(run({"query"}).exitCode, 3);

  EXPECT_EQ(run({"put", "web1", "disks", m_service / "bad", "--unchecked"}).exitCode, 0);
  Outcome const shown = run({"show", "web1", "disks"});
  EXPECT_EQ(shown.exitCode, 4) << shown.errors;
  EXPECT_THAT(shown.output, HasSubstr("\na\n"));
  EXPECT_THAT(shown.errors, HasSubstr("only a part of the collection"));
  EXPECT_EQ(runJson({"items"}, 4)[0]["complete"], false);
  Outcome const xml = run({"show", "web1", "disks", "--xml"});
  EXPECT_EQ(xml.exitCode, 0);
  EXPECT_EQ(xml.output, "<DiscoveredItems><DISCOVERED Name=\"a\"/>");
}

TEST_F(TqdiscoctlTest, aPayloadIsReadFromStandardInput)
{
  std::string const command = "printf %s \"$1\" | \"$2\" put web1 disks";
  Outcome const outcome =
      runProgram("/bin/sh", {"-c", command, "sh", itemsDocument(""), TQ_BIN_DIR "/tqdiscoctl"},
                 {{"TESSARINE_ROOT", m_service.root()}});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(run({"show", "web1", "disks", "--raw"}).output, itemsDocument(""));
  EXPECT_EQ(run({"show", "web1", "disks"}).exitCode, 3) << "there are no items in it";
}

TEST_F(TqdiscoctlTest, aLargePayloadArrivesWhole)
{
  std::string items;
  for (int i = 0; i < 40000; ++i)
    items += disk("/dev/disk" + std::to_string(i), std::to_string(i));
  std::string const payload = itemsDocument(items);
  store("web1", "disks", payload);
  EXPECT_EQ(run({"show", "web1", "disks", "--raw"}).output, payload);
}

TEST_F(TqdiscoctlTest, aPayloadThatTheServiceWouldRefuseIsNotSent)
{
  std::string const file = m_service / "payload";
  writeText(file, "");
  std::filesystem::resize_file(file, 256 * 1024 * 1024 + 1);
  Outcome const outcome = run({"put", "web1", "disks", file, "--unchecked"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("cannot read " + file + ": more than 256 MiB"));
  EXPECT_EQ(run({"query"}).exitCode, 3);
}

TEST_F(TqdiscoctlTest, aLowerPriorityDoesNotReplaceAHigherOne)
{
  store("web1", "disks", itemsDocument(disk("first", "1")), {"--priority", "20"});
  writeText(m_service / "payload", itemsDocument(disk("second", "1")));
  Outcome const outcome = run({"put", "web1", "disks", m_service / "payload", "--priority", "19"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("--priority"));
  EXPECT_EQ(runJson({"show", "web1", "disks"})["items"][0]["name"], "first");
}

TEST_F(TqdiscoctlTest, whatCannotBeStoredIsRefusedAsUsage)
{
  writeText(m_service / "payload", itemsDocument(""));
  std::string const file = m_service / "payload";
  EXPECT_EQ(run({"put", "web*", "disks", file}).exitCode, 2);
  EXPECT_EQ(run({"put", "", "disks", file}).exitCode, 2);
  EXPECT_EQ(run({"put", "web1", "disks", file, "--type", "remotepull"}).exitCode, 2);
  EXPECT_EQ(run({"put", "web1", "disks", file, "--expires-in", "1G"}).exitCode, 2);
  EXPECT_EQ(run({"put", "web1", "disks", file, "--expires-in", "soon"}).exitCode, 2);
  EXPECT_EQ(run({"put", "web1", "disks", m_service / "missing"}).exitCode, 1);
  EXPECT_EQ(run({"query"}).exitCode, 3);
}

TEST_F(TqdiscoctlTest, hostsAreToldWithAgeAndExpiry)
{
  store("web1", "disks", itemsDocument(""), {"--expires-in", "2h"});
  store("web1", "shelf", itemsDocument(""), {"--expires-in", "1d"});
  store("web2", "disks", itemsDocument(""));
  json const all = runJson({"hosts"});
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0]["host"], "web1");
  EXPECT_EQ(all[0]["discoveries"], 2);
  EXPECT_EQ(all[0]["authorities"], json({"disks", "shelf"}));
  EXPECT_LT(all[0]["firstExpiresTime"].get<std::string>(),
            runJson({"query", "--authority", "shelf"})[0]["expiresTime"].get<std::string>());
  EXPECT_THAT(run({"hosts", "--subject", "web1"}).output,
              AllOf(HasSubstr("disks, shelf"), HasSubstr("1h 59m"), Not(HasSubstr("web2"))));
}

TEST_F(TqdiscoctlTest, watchTellsWhatWasAddedChangedAndGone)
{
  store("old", "disks", itemsDocument(""));
  Process watcher(TQ_BIN_DIR "/tqdiscoctl", {"watch", "--interval", "1", "--json"},
                  {{"TESSARINE_ROOT", m_service.root()}});
  Process people(TQ_BIN_DIR "/tqdiscoctl", {"watch", "--interval", "1"},
                 {{"TESSARINE_ROOT", m_service.root()}});
  ASSERT_TRUE(people.awaitError("Watching 1 discovery"));
  auto const told = [&](std::string const& change, std::string const& subject)
  {
    return eventually(
        [&]
        {
          std::istringstream lines(watcher.output());
          for (std::string line; std::getline(lines, line);)
          {
            json const event = json::parse(line, nullptr, false);
            if (!event.is_discarded() && event["change"] == change && event["subject"] == subject)
              return true;
          }
          return false;
        },
        std::chrono::seconds(30));
  };
  // Twice, since the first may come before the watcher's first look.
  store("new", "disks", itemsDocument(""));
  std::this_thread::sleep_for(std::chrono::milliseconds(1100)); // times are whole seconds
  store("new", "disks", itemsDocument(disk("a", "1")));
  EXPECT_TRUE(told("changed", "new")) << watcher.output();
  for (auto const& entry : std::filesystem::directory_iterator(m_service.database()))
    if (entry.path().string().find("old") != std::string::npos)
      std::filesystem::remove(entry.path());
  EXPECT_TRUE(told("gone", "old")) << watcher.output();
  store("another", "disks", itemsDocument(""));
  EXPECT_TRUE(told("added", "another")) << watcher.output();
  EXPECT_TRUE(eventually(
      [&]
      { return people.output().find("added    another  disks (external)") != std::string::npos; },
      std::chrono::seconds(30)))
      << people.output();

  people.sendSignal(SIGINT);
  ASSERT_TRUE(people.wait());
  EXPECT_EQ(people.exitCode(), 0);

  EXPECT_EQ(m_service.stop(), 0);
  EXPECT_TRUE(watcher.awaitError("does not answer any more")) << watcher.errors();
  watcher.sendSignal(SIGTERM);
  ASSERT_TRUE(watcher.wait());
  EXPECT_EQ(watcher.exitCode(), 5) << "what it watched is away";
}

TEST_F(TqdiscoctlTest, watchEndsAfterTheLooksThatWereAskedFor)
{
  Outcome const outcome = run({"watch", "--looks", "2", "--interval", "1"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, IsEmpty());
}

TEST_F(TqdiscoctlTest, pushStartsAPassAndAllOfThemOnTheMaster)
{
  EXPECT_EQ(run({"push"}).exitCode, 0);
  json const all = runJson({"push", "--all"});
  EXPECT_EQ(all["all"], true);
  EXPECT_EQ(run({"push", "--all", "--host", "web1"}).exitCode, 2);
}

TEST_F(TqdiscoctlTest, aMasterOnTheCommandLineStandsInForTheConfiguration)
{
  store("web1", "disks", itemsDocument(disk("a", "1")));
  TempDir const elsewhere; // a root without a configuration
  auto const from = [&](Words const& words) {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", elsewhere.path()}});
  };
  Outcome const unknown = from({"query"});
  EXPECT_EQ(unknown.exitCode, 5);
  EXPECT_THAT(unknown.errors, AllOf(HasSubstr("tq.conf"), HasSubstr("--master")));

  // The records name a host that nobody here can resolve; their payloads are
  // read all the same.
  std::string const master = "127.0.0.1:" + std::to_string(m_service.port());
  Outcome const shown = from({"--master", master, "show", "web1", "disks"});
  EXPECT_EQ(shown.exitCode, 0) << shown.errors;
  EXPECT_THAT(shown.output, HasSubstr("Path  a"));
  EXPECT_EQ(from({"status", "-m", master}).exitCode, 0) << "behind the command as well";

  // The same where the configuration has only the address.
  std::filesystem::create_directories(elsewhere / "etc");
  writeText(elsewhere / "etc/tq.conf", "SERVER = 127.0.0.1\nORB_PORT.DiscoveryService = " +
                                           std::to_string(m_service.port()) + "\n");
  Outcome const byAddress = from({"items", "--subject", "web1"});
  EXPECT_EQ(byAddress.exitCode, 0) << byAddress.errors;
  std::filesystem::remove_all(elsewhere / "etc");

  for (char const* wrong : {"127.0.0.1:0", "127.0.0.1:70000", "127.0.0.1:x", "[::1", "a b", ":1"})
    EXPECT_EQ(from({"query", "--master", wrong}).exitCode, 2) << wrong;
}

TEST_F(TqdiscoctlTest, aMasterIsCalledByWhicheverOfItsAddressesAnswers)
{
  store("web1", "disks", itemsDocument(disk("a", "1")));
  TempDir const elsewhere;
  std::filesystem::create_directories(elsewhere / "etc");
  writeText(elsewhere / "etc/tq.conf",
            "SERVER = nowhere\nHOST_ADDRESS.big = 127.0.0.2, ::1, 127.0.0.1\n"
            "ORB_PORT.DiscoveryService = " +
                std::to_string(m_service.port()) + "\n");
  // The record names the master as it calls itself, which is not known here.
  Outcome const shown =
      runProgram(TQ_BIN_DIR "/tqdiscoctl", {"--master", "big", "show", "web1", "disks"},
                 {{"TESSARINE_ROOT", elsewhere.path()}});
  EXPECT_EQ(shown.exitCode, 0) << shown.errors;
  EXPECT_THAT(shown.output, HasSubstr("Path  a"));
}

TEST_F(TqdiscoctlTest, aMasterThatCannotBeReachedIsToldWithTheReason)
{
  Outcome const refused = run({"query", "--master", "127.0.0.1:" + std::to_string(freePort())});
  EXPECT_EQ(refused.exitCode, 5);
  EXPECT_THAT(refused.errors, HasSubstr("nothing accepts connections"));
  EXPECT_THAT(refused.output, IsEmpty());

  Outcome const unresolved = run({"status", "--master", NO_HOST});
  EXPECT_EQ(unresolved.exitCode, 5);
  EXPECT_THAT(unresolved.errors, AllOf(HasSubstr(NO_HOST), HasSubstr("cannot be resolved")));
}

TEST_F(TqdiscoctlTest, aMasterThatNeverAnswersDoesNotHangTheCommand)
{
  int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof name;
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  ASSERT_EQ(listen(fd, 8), 0);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length), 0);
  auto const begin = std::chrono::steady_clock::now();
  Outcome const outcome = run(
      {"query", "--timeout", "1", "--master", "127.0.0.1:" + std::to_string(ntohs(name.sin_port))});
  EXPECT_EQ(outcome.exitCode, 5) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("does not answer"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  close(fd);
}

TEST_F(TqdiscoctlTest, wrongUsageExitsWithTwoAndHelpWithZero)
{
  EXPECT_EQ(run({}).exitCode, 2);
  Outcome const unknown = run({"quarry"});
  EXPECT_EQ(unknown.exitCode, 2);
  EXPECT_THAT(unknown.errors, HasSubstr("\"quarry\" is no command"));
  EXPECT_EQ(run({"show", "web1"}).exitCode, 2);
  EXPECT_EQ(run({"items", "--details", "--columns", "a"}).exitCode, 2);
  EXPECT_EQ(run({"query", "--timeout", "0"}).exitCode, 2);
  EXPECT_THAT(run({"--help"}).output, AllOf(HasSubstr("status"), HasSubstr("Exit codes")));
  EXPECT_EQ(run({"items", "--help"}).exitCode, 0);
}

TEST_F(TqdiscoctlTest, anEmptyServiceIsUpAndKnowsNothing)
{
  Outcome const status = run({"status"});
  EXPECT_EQ(status.exitCode, 0) << status.errors;
  EXPECT_THAT(status.output, AllOf(HasSubstr("is up"), HasSubstr("lists 0 discoveries")));
  for (Words const& words : std::vector<Words>{{"query"}, {"hosts"}, {"items"}})
    EXPECT_EQ(runJson(words, 3), json::array()) << words[0];
  EXPECT_EQ(run({"show", "a", "b"}).exitCode, 3);
  EXPECT_EQ(runJson({"filters", "a", "b"}, 3), json::array());
}

} // namespace
