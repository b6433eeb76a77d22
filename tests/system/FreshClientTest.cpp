// A client that has not announced itself to the master yet, and reports nothing
// before: where it can be seen.

#include "tests/support/LiveService.h"
#include "tests/support/NotifySocket.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr char FRESH_ADDRESS[] = "127.0.0.2";

// Its name begins with no number, or with one for which the first try comes at
// once.
class FreshClientTest : public testing::Test
{
protected:
  void launch(std::string const& name)
  {
    std::filesystem::create_directories(m_root / "etc");
    std::filesystem::permissions(m_root.path(), std::filesystem::perms(0755));
    std::string const master = LiveService::NAME;
    writeText(m_root / "etc/tq.conf",
              "SERVER = " + master + "\nCLIENT_NAME = " + name + "\nHOST_ADDRESS." + master +
                  " = 127.0.0.1\nORB_BIND = " + FRESH_ADDRESS +
                  "\nORB_PORT.DiscoveryService = " + std::to_string(m_master.port()) + "\n");
    m_client =
        std::make_unique<Process>(TQ_BIN_DIR "/tqdisco", std::vector<std::string>{},
                                  Process::Environment{{"TESSARINE_ROOT", m_root.path()},
                                                       {"NOTIFY_SOCKET", m_root / "notify"}});
    ASSERT_TRUE(m_client->awaitError("main: Started, version")) << m_client->errors();
  }

  void TearDown() override
  {
    m_client->sendSignal(SIGTERM);
    EXPECT_TRUE(m_client->wait());
    EXPECT_EQ(m_client->exitCode(), 0) << m_client->errors();
  }

  // As it runs on the client.
  Outcome runThere(std::vector<std::string> const& words) const
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", m_root.path()}});
  }

  LiveService m_master;
  TempDir m_root;
  NotifySocket m_manager{m_root / "notify"};
  std::unique_ptr<Process> m_client;
};

TEST_F(FreshClientTest, thatWaitsForItsFirstTryIsToldEverywhere)
{
  ASSERT_TRUE(m_master.start());
  launch("freshhost");
  EXPECT_TRUE(m_manager.await("STATUS=Serving; announces its explorers to the master at 20"));
  EXPECT_THAT(
      m_client->errors(),
      ContainsRegex("This host announces its explorers to the master at 20[-0-9]+T[0-9:]+Z, "
                    "in 283 seconds, and reports nothing before"));

  auto const told = ContainsRegex("freshhost has not announced itself to the master yet: it does "
                                  "so at 20[-0-9]+T[0-9:]+Z, in 4m [0-9]+s, and reports nothing "
                                  "before\\.\n");
  EXPECT_THAT(runThere({"status"}).output, told);
  EXPECT_THAT(m_master.tqdiscoctl({"--master", FRESH_ADDRESS, "status"}).output, told);
  EXPECT_THAT(m_master.tqdiscoctl({"status"}).output, Not(HasSubstr("freshhost")));
  json const here = json::parse(runThere({"status", "--json"}).output)["announcement"];
  EXPECT_EQ(here["host"], "freshhost");
  EXPECT_EQ(here["state"], "waiting");
  EXPECT_THAT(std::string(here["nextTry"]), HasSubstr("T"));
  EXPECT_EQ(json::parse(m_master.tqdiscoctl({"status", "--json"}).output)["announcement"], json());
  EXPECT_EQ(m_master.stop(), 0) << m_master.log();
}

TEST_F(FreshClientTest, thatDidNotReachTheMasterIsToldWhileTheMasterIsAway)
{
  launch("4a");
  ASSERT_TRUE(m_client->awaitError("This host tries again to announce its explorers to the master"))
      << m_client->errors();
  EXPECT_TRUE(m_manager.await("STATUS=Serving; tries again to announce its explorers"));
  auto const told = AllOf(HasSubstr("4a could not announce itself to the master "),
                          HasSubstr("the service on tqtestmaster could not be reached. It tries "
                                    "again at 20"));
  Outcome const here = runThere({"status"});
  EXPECT_THAT(here.output, told);
  EXPECT_EQ(here.exitCode, 5) << "the master is away";
  EXPECT_THAT(m_master.tqdiscoctl({"--master", FRESH_ADDRESS, "status"}).output, told);
}

TEST_F(FreshClientTest, thatHasDoneItIsToldNoMore)
{
  ASSERT_TRUE(m_master.start());
  launch("4a");
  ASSERT_TRUE(m_client->awaitError("Successfully registered explorers")) << m_client->errors();
  EXPECT_TRUE(eventually(
      [this]
      {
        json const here = json::parse(runThere({"status", "--json"}).output)["announcement"];
        return here.is_object() && here["state"] == "announced";
      }));
  EXPECT_THAT(runThere({"status"}).output, Not(HasSubstr("announce")));
  EXPECT_EQ(m_master.stop(), 0) << m_master.log();
}

} // namespace
