// Explorers that do not return, or bring the service down: they are named, the others go
// on, and the service obeys.

#include "tests/support/LiveService.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/RemoteClient.h"
#include "tests/support/Scripts.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

namespace
{

using namespace tqtest;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::Not;

class LateExplorerTest : public testing::Test
{
protected:
  explicit LateExplorerTest(LiveService::Explorers explorers = LiveService::WITHOUT_EXPLORERS)
      : m_service(explorers)
  {
    m_service.addPlugin("discovery_misbehaving", "misbehaving");
    m_service.configure("LOG_LEVEL = 4\nEXPLORER_BUDGET_SECONDS = 1\n");
  }

  bool start(Process::Environment environment)
  {
    environment["TQ_FIXTURE_FOLDER"] = m_service.root();
    return m_service.start(environment);
  }

  // Starts a service that something in it ends.
  void startInVain(Process::Environment environment)
  {
    environment["TQ_FIXTURE_FOLDER"] = m_service.root();
    m_service.launch(environment);
    EXPECT_TRUE(m_service.process().wait()) << m_service.log();
  }

  std::size_t count(std::string const& event) const
  {
    std::ifstream in(m_service / "events");
    std::size_t found = 0;
    for (std::string line; std::getline(in, line);)
      found += line == event ? 1 : 0;
    return found;
  }

  bool awaitEvents(std::string const& event, std::size_t number)
  {
    return eventually([&] { return count(event) >= number; });
  }

  // What explorer list says of one; an empty object when it is not listed.
  nlohmann::json explorer(std::string const& name) const
  {
    Outcome const listed = m_service.tqdiscoctl({"explorer", "list", "--json"});
    EXPECT_EQ(listed.exitCode, 0) << listed.errors;
    auto const answer = nlohmann::json::parse(listed.output);
    for (auto const& one : answer.at("explorers"))
      if (one.at("name") == name)
        return one;
    return nlohmann::json::object();
  }

  // That it ends in order, and how long that took.
  seconds stop()
  {
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_service.stop(), 0) << m_service.log();
    return std::chrono::duration_cast<seconds>(std::chrono::steady_clock::now() - begin);
  }

  LiveService m_service;
};

struct LateExplorerAmongOthersTest : LateExplorerTest
{
  LateExplorerAmongOthersTest() : LateExplorerTest(LiveService::WITH_EXPLORERS) {}
};

} // namespace

TEST_F(LateExplorerAmongOthersTest, oneThatLoopsIsNamedTheOthersGoOnAndTheServiceStops)
{
  ASSERT_TRUE(start({{"TQ_FIXTURE_PUSH", "loop"}})) << m_service.log();
  EXPECT_TRUE(m_service.process().awaitError(
      "Explorer bad of " + m_service / "lib/plugins/libtqplugin-misbehaving.so" +
      " is late: it has been running for 1 second, and may for 1 second"))
      << m_service.log();
  // The rest of the pass, and the next pass.
  EXPECT_TRUE(awaitEvents("steady", 2)) << m_service.log();
  EXPECT_EQ(count("bad begins"), 1U) << "there is no second run beside a late one";

  nlohmann::json const bad = explorer("bad");
  EXPECT_EQ(bad.at("state"), "late") << bad;
  EXPECT_EQ(bad.at("result"), "late");
  EXPECT_EQ(bad.at("inOrder"), false);
  EXPECT_EQ(bad.at("lateRuns"), 1);
  EXPECT_EQ(explorer("steady").at("result"), "none found");
  EXPECT_EQ(explorer("filesystem").at("origin"), "libtqexplorer");

  Outcome status = m_service.tqdiscoctl({"status"});
  EXPECT_TRUE(eventually(
      [&]
      {
        status = m_service.tqdiscoctl({"status"});
        return status.output.find("bad") != std::string::npos;
      }))
      << status.output << status.errors;
  EXPECT_THAT(status.output, testing::ContainsRegex("bad +push +client +.*late")) << status.output;

  EXPECT_LT(stop(), seconds(20));
  EXPECT_THAT(m_service.log(), HasSubstr("Stopping without explorer bad of "));
  EXPECT_THAT(m_service.log(), HasSubstr("main: Stopped"));
  EXPECT_EQ(count("bad stops"), 0U);
  EXPECT_EQ(count("steady stops"), 1U);
}

TEST_F(LateExplorerAmongOthersTest, scriptsAreListedLikePlugInsWithTheirFilesAndResults)
{
  std::filesystem::create_directories(m_service / "explorers.d");
  writeShellScript(m_service / "explorers.d/shelves.sh", "echo rows=4");
  writeShellScript(m_service / "explorers.d/pools", "exit 3");
  ASSERT_TRUE(start({})) << m_service.log();
  EXPECT_TRUE(eventually([&] { return explorer("shelves").value("result", "") == "success"; }))
      << explorer("shelves") << m_service.log();
  nlohmann::json const shelves = explorer("shelves");
  EXPECT_EQ(shelves.at("kind"), "script");
  EXPECT_EQ(shelves.at("origin"), m_service / "explorers.d/shelves.sh");
  EXPECT_EQ(shelves.at("inOrder"), true);
  EXPECT_GT(shelves.at("microseconds"), 0);
  EXPECT_EQ(shelves.at("lastSuccess"), shelves.at("lastRun"));
  EXPECT_TRUE(
      eventually([&] { return explorer("pools").value("result", "") == "it exited with 3"; }))
      << explorer("pools");
  Outcome const listed = m_service.tqdiscoctl({"explorer", "list"});
  EXPECT_THAT(listed.output,
              testing::ContainsRegex("pools +script +client +[0-9]+s ago .* it exited with 3 +/"));
  EXPECT_THAT(listed.output, testing::ContainsRegex("host +push +client .*success +libtqexplorer"));
  stop();
}

TEST_F(LateExplorerAmongOthersTest, statusNamesTheOneThatEndedTheServiceBefore)
{
  startInVain({{"TQ_FIXTURE_PUSH", "crash"}});
  ASSERT_TRUE(start({})) << m_service.log();
  Outcome status{};
  EXPECT_TRUE(eventually(
      [&]
      {
        status = m_service.tqdiscoctl({"status"});
        return status.errors.find("bad of ") != std::string::npos;
      }))
      << status.output << status.errors;
  EXPECT_THAT(status.errors,
              HasSubstr(" ended without being stopped before its last start, in explorer bad of "));
  stop();
}

TEST_F(LateExplorerTest, oneThatReturnsLateHasItsDiscoveryStoredAndRunsAgain)
{
  ASSERT_TRUE(start({{"TQ_FIXTURE_PUSH", "wait"}})) << m_service.log();
  ASSERT_TRUE(m_service.process().awaitError("Explorer bad of ")) << m_service.log();
  ASSERT_TRUE(awaitEvents("steady", 1));
  EXPECT_EQ(count("bad begins"), 1U);
  writeText(m_service / "go", "");
  EXPECT_TRUE(m_service.process().awaitError("has returned after")) << m_service.log();
  EXPECT_EQ(explorer("bad").at("result"), "success");
  EXPECT_GE(explorer("bad").at("microseconds"), 1000000);
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(client.read("1", "bad"), "<bad/>");
  }
  EXPECT_TRUE(awaitEvents("bad begins", 2)) << m_service.log();
  stop();
  EXPECT_THAT(m_service.log(), Not(HasSubstr("Stopping without")));
  EXPECT_EQ(count("bad stops"), 1U);
}

TEST_F(LateExplorerTest, theStopWaitsForOneThatIsNotLateAndNoLongerThanItMay)
{
  ASSERT_TRUE(start({{"TQ_FIXTURE_PUSH", "wait"}})) << m_service.log();
  ASSERT_TRUE(awaitEvents("bad begins", 1));
  EXPECT_LT(stop(), seconds(20));
  EXPECT_THAT(m_service.log(), HasSubstr("Stopping without explorer bad of "));
  EXPECT_EQ(count("steady"), 0U) << "no other is begun once the service stops";
}

TEST_F(LateExplorerTest, oneThatIsAskedAndDoesNotReturnIsNotAskedAgainAndTheServiceStops)
{
  ASSERT_TRUE(start({{"TQ_FIXTURE_PULL", "wait"}})) << m_service.log();
  client::Client client(m_service.root(), LiveService::NAME);
  ASSERT_TRUE(client.connected());
  std::thread asker(
      [&]
      {
        try
        {
          client.read("3", "stuck");
        }
        catch (CORBA::Exception const&)
        {
          // The connection goes with the service.
        }
      });
  EXPECT_TRUE(m_service.process().awaitError("Explorer stuck of ")) << m_service.log();
  EXPECT_EQ(explorer("stuck").at("state"), "late");
  EXPECT_EQ(client.read("3", "stuck"), "(status " + std::to_string(client::DS_OPEN_FAILED) + ")");
  EXPECT_EQ(count("stuck begins"), 1U);
  EXPECT_LT(stop(), seconds(20));
  EXPECT_THAT(m_service.log(), HasSubstr("Stopping without explorer stuck of "));
  asker.join();
}

TEST_F(LateExplorerTest, theWatchdogIsFedWhileAnExplorerLoops)
{
  NotifySocket manager(m_service / "notify");
  ASSERT_TRUE(start({{"TQ_FIXTURE_PUSH", "loop"},
                     {"NOTIFY_SOCKET", m_service / "notify"},
                     {"WATCHDOG_USEC", "1000000"}}))
      << m_service.log();
  ASSERT_TRUE(m_service.process().awaitError("Explorer bad of ")) << m_service.log();
  ASSERT_TRUE(awaitEvents("steady", 1));
  EXPECT_TRUE(manager.await("WATCHDOG=1", seconds(20))) << m_service.log();
  EXPECT_THAT(m_service.log(), Not(HasSubstr("timers do not fire")));
  stop();
}

TEST_F(LateExplorerTest, oneThatCrashesIsNamedAndLeftOutAfterThreeStartsUntilItIsEnabled)
{
  for (int i = 0; i < 3; ++i)
  {
    startInVain({{"TQ_FIXTURE_PUSH", "crash"}});
    if (i > 0)
    {
      EXPECT_THAT(m_service.log(), HasSubstr("Explorer bad of " +
                                             m_service / "lib/plugins/libtqplugin-misbehaving.so" +
                                             " (push) crashed the service: Segmentation fault"));
    }
  }
  ASSERT_TRUE(start({{"TQ_FIXTURE_PUSH", "crash"}})) << m_service.log();
  EXPECT_THAT(m_service.log(), HasSubstr("3 starts in a row"));
  EXPECT_THAT(m_service.log(), HasSubstr("is left out: it crashed 3 starts in a row"));
  ASSERT_TRUE(awaitEvents("steady", 1)) << m_service.log();
  EXPECT_EQ(explorer("bad").at("state"), "left out");
  EXPECT_EQ(explorer("bad").at("inOrder"), false);
  EXPECT_EQ(explorer("steady").at("inOrder"), true);

  Outcome const enabled = m_service.tqdiscoctl({"explorer", "enable", "bad"});
  EXPECT_EQ(enabled.exitCode, 0) << enabled.errors;
  EXPECT_THAT(enabled.output, HasSubstr("(push) may run again."));
  EXPECT_TRUE(m_service.process().wait()) << "it does not run again";
  EXPECT_EQ(m_service.tqdiscoctl({"explorer", "enable", "steady"}).exitCode, 3);
}

TEST_F(LateExplorerTest, whatEndsTheServiceInOtherWaysIsNamedToo)
{
  startInVain({{"TQ_FIXTURE_PUSH", "overflow"}});
  startInVain({{"TQ_FIXTURE_PUSH", "exit"}});
  EXPECT_THAT(m_service.log(), HasSubstr("(push) crashed the service: Segmentation fault"));
  startInVain({{"TQ_FIXTURE_START", "crash"}});
  EXPECT_THAT(m_service.log(), HasSubstr("(push) ended the service, 2 starts in a row"));
  ASSERT_TRUE(start({{"TQ_FIXTURE_PUSH", "wait"}})) << m_service.log();
  EXPECT_THAT(m_service.log(), HasSubstr("(start push) crashed the service: Segmentation fault"));
  EXPECT_THAT(m_service.log(), Not(HasSubstr("left out")));
  ASSERT_TRUE(awaitEvents("bad begins", 3));
  m_service.process().sendSignal(SIGKILL);
  ASSERT_TRUE(m_service.process().wait());

  ASSERT_TRUE(start({})) << m_service.log();
  EXPECT_THAT(m_service.log(), HasSubstr("was running when the service ended without being"));
  EXPECT_THAT(m_service.log(), Not(HasSubstr("crashed")));
  stop();
  ASSERT_TRUE(start({})) << m_service.log();
  EXPECT_THAT(m_service.log(), Not(HasSubstr("was running when"))) << "it was stopped";
  stop();
}
