// When "stop" says that a service has stopped, and whom it asks.

#include "tests/support/LiveService.h"

#include <gmock/gmock.h>

#include <fstream>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

// A service that ends only when the test lets its explorer end.
class TqdiscoctlStopTest : public testing::Test
{
protected:
  void SetUp() override
  {
    m_service.addPlugin("discovery_blocking", "blocking");
    m_service.configure("LOG_LEVEL = 4\n");
    ASSERT_TRUE(m_service.start({{"TQ_FIXTURE_FOLDER", m_service.root()}})) << m_service.log();
    ASSERT_TRUE(eventually([this] { return std::filesystem::exists(m_service / "events"); }))
        << m_service.log();
  }

  void letGo() { writeText(m_service / "go", ""); }

  // The command, and a service that has begun to stop.
  std::unique_ptr<Process> beginStop(std::vector<std::string> words)
  {
    words.insert(words.begin(), "stop");
    auto stopper =
        std::make_unique<Process>(TQ_BIN_DIR "/tqdiscoctl", words,
                                  Process::Environment{{"TESSARINE_ROOT", m_service.root()}});
    EXPECT_TRUE(m_service.process().awaitError("Waiting if any explorer timer is running"))
        << m_service.log();
    return stopper;
  }

  void expectOrderlyEnd()
  {
    ASSERT_TRUE(m_service.process().wait()) << m_service.log();
    EXPECT_EQ(m_service.process().exitCode(), 0) << m_service.log();
  }

  LiveService m_service;
};

// A client, of a master that is not there.
class TqdiscoctlLoneClientTest : public testing::Test
{
protected:
  static constexpr char const* CLIENT = "4a";

  void SetUp() override
  {
    namespace fs = std::filesystem;
    fs::create_directories(m_root / "etc");
    fs::create_directories(m_root / "lib/plugins");
    writeText(m_root / "etc/tq.conf",
              "SERVER = away\nHOST_ADDRESS.away = 127.0.0.1\nCLIENT_NAME = " + std::string(CLIENT) +
                  "\nHOST_ADDRESS." + CLIENT +
                  " = 127.0.0.2\nORB_BIND = 127.0.0.2\nORB_PORT.DiscoveryService = " +
                  std::to_string(freePort()) + "\n");
    m_client = std::make_unique<Process>(TQ_BIN_DIR "/tqdisco", std::vector<std::string>{},
                                         Process::Environment{{"TESSARINE_ROOT", m_root.path()}});
    ASSERT_TRUE(m_client->awaitError("main: Started, version")) << m_client->errors();
  }

  Outcome run(std::vector<std::string> const& words) const
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", m_root.path()}});
  }

  TempDir m_root;
  std::unique_ptr<Process> m_client;
};

} // namespace

TEST_F(TqdiscoctlStopTest, stopWaitsUntilTheServiceHasStopped)
{
  auto const stopper = beginStop({});
  // It looks ten times a second.
  EXPECT_FALSE(stopper->wait(std::chrono::seconds(1))) << stopper->output();
  EXPECT_TRUE(m_service.process().running());
  letGo();
  ASSERT_TRUE(stopper->wait());
  EXPECT_EQ(stopper->exitCode(), 0) << stopper->errors();
  EXPECT_THAT(stopper->output(), HasSubstr("has stopped"));
  expectOrderlyEnd();

  Outcome const again = m_service.tqdiscoctl({"stop"});
  EXPECT_EQ(again.exitCode, 5);
  EXPECT_THAT(again.errors,
              AllOf(HasSubstr("no discovery service"), HasSubstr("--master HOST[:PORT]")));
}

TEST_F(TqdiscoctlStopTest, aServiceThatHangsInTheMiddleHasNotStopped)
{
  auto const stopper = beginStop({"--timeout", "3"});
  // It was answered, and looks.
  EXPECT_FALSE(stopper->wait(std::chrono::seconds(1))) << stopper->errors();
  m_service.process().freeze();
  ASSERT_TRUE(stopper->wait());
  EXPECT_EQ(stopper->exitCode(), 4) << stopper->errors();
  EXPECT_THAT(stopper->output(), IsEmpty());
  EXPECT_THAT(stopper->errors(), HasSubstr("was asked to stop, but has not ended after 3 seconds"));
  m_service.process().sendSignal(SIGCONT);
  letGo();
  expectOrderlyEnd();
}

TEST_F(TqdiscoctlLoneClientTest, aServiceIsToldWhatToDoWhileTheMasterIsAway)
{
  EXPECT_EQ(run({"push"}).exitCode, 5) << "there is none";
  Outcome const push = run({"push", "--host", CLIENT});
  EXPECT_EQ(push.exitCode, 0) << push.errors;
  EXPECT_THAT(push.output, HasSubstr("comes within a minute"));
  // For that a request would be stored with the master.
  EXPECT_EQ(run({"push", "--host", CLIENT, "--now"}).exitCode, 5);
  Outcome const stop = run({"stop", "--host", CLIENT});
  EXPECT_EQ(stop.exitCode, 0) << stop.errors;
  EXPECT_EQ(stop.output, "The service at 4a has stopped.\n");
  ASSERT_TRUE(m_client->wait());
  EXPECT_EQ(m_client->exitCode(), 0) << m_client->errors();
  EXPECT_EQ(run({"stop", "--host", CLIENT}).exitCode, 5);
}
