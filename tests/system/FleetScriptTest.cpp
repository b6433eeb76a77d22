// The fleet to play with starts every time, and says why when it does not.

#include "tests/support/LiveService.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// A build whose service does something else first on one host.
class FleetScriptTest : public testing::Test
{
protected:
  void build(std::string const& host, std::string const& first)
  {
    std::filesystem::create_directories(m_folder / "bin");
    std::filesystem::create_directories(m_folder / "tmp");
    std::filesystem::create_directory_symlink(TQ_LIB_DIR, m_folder / "lib");
    std::filesystem::create_symlink(TQ_BIN_DIR "/tqdiscoctl", m_folder / "bin/tqdiscoctl");
    writeText(m_folder / "bin/tqdisco", "#!/bin/sh\ncase $TESSARINE_ROOT in */" + host + ") " +
                                            first + ";; esac\nexec '" TQ_BIN_DIR "/tqdisco'\n");
    std::filesystem::permissions(m_folder / "bin/tqdisco", std::filesystem::perms(0755));
  }

  std::unique_ptr<Process> start(Process::Environment const& more = {})
  {
    Process::Environment environment{{"TMPDIR", m_folder / "tmp"},
                                     {"PORT", std::to_string(freePort())},
                                     // LeakSanitizer now and then waits for ever for threads to be
                                     // suspended when many services end; others look for leaks.
                                     {"ASAN_OPTIONS", "detect_leaks=0"}};
    environment.insert(more.begin(), more.end());
    return std::make_unique<Process>(
        "/bin/bash", Words{TQ_SOURCE_DIR "/packaging/fleet.sh", m_folder.path()}, environment);
  }

  static void awaitAllReports(Process& fleet)
  {
    ASSERT_TRUE(eventually(
        [&] {
          return !fleet.running() || fleet.output().find("The fleet goes on.") != std::string::npos;
        },
        std::chrono::seconds(120)));
    ASSERT_TRUE(fleet.running()) << fleet.output() << fleet.errors();
  }

  void expectThatItTidiesUp(Process& fleet) const
  {
    fleet.sendSignal(SIGINT);
    ASSERT_TRUE(fleet.wait(std::chrono::seconds(120)));
    EXPECT_EQ(fleet.exitCode(), 0) << fleet.errors();
    EXPECT_TRUE(std::filesystem::is_empty(m_folder / "tmp"));
  }

  // What the command says on that host of the fleet that goes on.
  Outcome on(std::string const& host, std::string const& command) const
  {
    auto const fleet = *std::filesystem::directory_iterator(m_folder / "tmp");
    return runProgram("/bin/sh",
                      {"-c", "PATH='" TQ_BIN_DIR "':$PATH exec '" + (fleet.path() / "on").string() +
                                 "' " + host + ' ' + command});
  }

  using Words = std::vector<std::string>;
  TempDir m_folder;
};

TEST_F(FleetScriptTest, clientsAreStartedWhenTheMasterListens)
{
  build("4master", "sleep 3");
  auto const fleet = start();
  ASSERT_NO_FATAL_FAILURE(awaitAllReports(*fleet));
  expectThatItTidiesUp(*fleet);
}

TEST_F(FleetScriptTest, withTlsHostsCallOneAnotherWithNothingElse)
{
  build("4master", ":");
  auto const fleet = start({{"TLS", "1"}});
  ASSERT_NO_FATAL_FAILURE(awaitAllReports(*fleet));
  Outcome const checked = on("4master", "tqdiscoctl tls check 95web");
  EXPECT_EQ(checked.exitCode, 0) << checked.errors;
  EXPECT_THAT(checked.output, HasSubstr("95web"));
  EXPECT_EQ(on("95web", "tqdiscoctl query").exitCode, 0);
  EXPECT_EQ(on("95web", "tqdiscoctl --tls off query").exitCode, 5);
  expectThatItTidiesUp(*fleet);
}

TEST_F(FleetScriptTest, theLogsOfAFailedStartAreKeptAndPrinted)
{
  build("96db", "echo no such luck; exit 1");
  auto const fleet = start();
  ASSERT_TRUE(fleet->wait(std::chrono::seconds(120)));
  EXPECT_EQ(fleet->exitCode(), 1);
  EXPECT_THAT(fleet->errors(), AllOf(HasSubstr("96db did not start."), HasSubstr("no such luck"),
                                     HasSubstr("The logs are kept: ")));
  std::size_t kept = 0;
  for (auto const& each : std::filesystem::recursive_directory_iterator(m_folder / "tmp"))
    if (each.path().filename() == "tqdisco.log" &&
        readText(each.path()).find("no such luck") != std::string::npos)
    {
      ++kept;
      EXPECT_THAT(fleet->errors(), HasSubstr(each.path().string()));
    }
  EXPECT_EQ(kept, 1U);
}

} // namespace
