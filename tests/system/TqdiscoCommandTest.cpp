// The command line of tqdisco, its exit codes and its signals.

#include "tests/support/LiveService.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

#include <sys/resource.h>
#include <arpa/inet.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>

namespace
{

using testing::HasSubstr;
using testing::Not;
using tqtest::NotifySocket;

class TqdiscoCommandTest : public testing::Test
{
protected:
  TqdiscoCommandTest() { std::filesystem::create_directories(root / "etc"); }

  void configure(std::string const& text) { writeText(root / "etc/tq.conf", text); }

  // A configuration with which the service starts, alone and on a free port.
  void configureService(std::string const& more = "")
  {
    configure("SERVER = tqtestmaster\nCLIENT_NAME = tqtestmaster\n"
              "HOST_ADDRESS.tqtestmaster = 127.0.0.1\nORB_BIND = 127.0.0.1\n"
              "ORB_PORT.DiscoveryService = " +
              std::to_string(port()) + "\n" + more);
  }

  std::unique_ptr<Process> start(std::vector<std::string> const& arguments,
                                 Process::Environment environment = {},
                                 std::string const& program = TQ_BIN_DIR "/tqdisco")
  {
    environment["TESSARINE_ROOT"] = root.path();
    return std::make_unique<Process>(program, arguments, environment);
  }

  // Runs to its end.
  std::unique_ptr<Process> run(std::vector<std::string> const& arguments,
                               std::string const& program = TQ_BIN_DIR "/tqdisco")
  {
    auto process = start(arguments, {}, program);
    EXPECT_TRUE(process->wait()) << process->errors();
    return process;
  }

  std::string readIfThere(std::string const& name)
  {
    return std::filesystem::exists(root / name) ? readText(root / name) : std::string();
  }

  // One for the whole test; free a moment ago, unless occupyPort took it.
  unsigned short port()
  {
    if (m_port == 0)
    {
      bindPort();
      close(m_socket);
      m_socket = -1;
    }
    return m_port;
  }

  void occupyPort()
  {
    bindPort();
    ASSERT_EQ(listen(m_socket, 1), 0);
  }

  ~TqdiscoCommandTest() override
  {
    if (m_socket >= 0)
      close(m_socket);
  }

  TempDir root;

private:
  void bindPort()
  {
    m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof name;
    auto* const generic = reinterpret_cast<sockaddr*>(&name);
    if (bind(m_socket, generic, length) != 0 || getsockname(m_socket, generic, &length) != 0)
      ADD_FAILURE() << "no port on loopback";
    m_port = ntohs(name.sin_port);
  }

  int m_socket = -1;
  unsigned short m_port = 0;
};

} // namespace

TEST_F(TqdiscoCommandTest, helpDocumentsOptionsAndExitCodes)
{
  auto const process = run({"--help"});
  EXPECT_EQ(process->exitCode(), 0);
  EXPECT_EQ(process->errors(), "");
  for (char const* const part :
       {"--check-config", "--version", "--debug", "--log-level", "TESSARINE_ROOT", "Exit status",
        "0  stopped in order", "1  the start failed", "2  wrong usage", "3  the stop was",
        "4  this host is the master"})
    EXPECT_THAT(process->output(), HasSubstr(part));
  EXPECT_THAT(process->output(), HasSubstr(root / "etc/tq.conf"));
}

TEST_F(TqdiscoCommandTest, versionIsTheProjects)
{
  auto const process = run({"--version"});
  EXPECT_EQ(process->exitCode(), 0);
  EXPECT_EQ(process->output(), "tqdisco " TQ_VERSION "\n");
}

TEST_F(TqdiscoCommandTest, wrongUsageExitsWith2AndNamesTheOption)
{
  auto const unknown = run({"--frobnicate"});
  EXPECT_EQ(unknown->exitCode(), 2);
  EXPECT_THAT(unknown->errors(), HasSubstr("--frobnicate"));

  auto const level = run({"--log-level", "7"});
  EXPECT_EQ(level->exitCode(), 2);
  EXPECT_THAT(level->errors(), HasSubstr("--log-level"));

  auto const word = run({"start"});
  EXPECT_EQ(word->exitCode(), 2);
  EXPECT_THAT(word->errors(), HasSubstr("start"));

  EXPECT_EQ(run({"--debug", "--log-level", "4"})->exitCode(), 2);
}

TEST_F(TqdiscoCommandTest, checkConfigAcceptsAGoodConfiguration)
{
  configure("# the master\nSERVER = master.example\nLOG_LEVEL = 4\n");
  auto const process = run({"--check-config"});
  EXPECT_EQ(process->exitCode(), 0) << process->errors();
  EXPECT_EQ(process->output(), root / "etc/tq.conf" + ": no mistakes\n");
  EXPECT_EQ(process->errors(), "");
}

TEST_F(TqdiscoCommandTest, checkConfigReportsEveryMistakeWithFileAndLine)
{
  configure("SERVER = master.example\nno equals sign\nLOG_LEVEL = loud\nUNHEARD_OF = 1\n");
  auto const process = run({"--check-config"});
  EXPECT_EQ(process->exitCode(), 2);
  for (char const* const line : {"etc/tq.conf:2:", "etc/tq.conf:3:", "etc/tq.conf:4:"})
    EXPECT_THAT(process->errors(), HasSubstr(line));
  EXPECT_THAT(process->errors(), Not(HasSubstr("etc/tq.conf:1:")));
}

TEST_F(TqdiscoCommandTest, checkConfigReportsAMissingFile)
{
  auto const process = run({"--check-config"});
  EXPECT_EQ(process->exitCode(), 2);
  EXPECT_THAT(process->errors(), HasSubstr(root / "etc/tq.conf"));
}

TEST_F(TqdiscoCommandTest, checkConfigSaysThatThereIsNoMaster)
{
  configure("LOG_LEVEL = 4\n");
  auto const process = run({"--check-config"});
  EXPECT_EQ(process->exitCode(), 2);
  EXPECT_THAT(process->errors(), HasSubstr("etc/tq.conf: SERVER is missing"));
}

TEST_F(TqdiscoCommandTest, aStartWithoutAMasterSaysSoToTheLogAndTheServiceManager)
{
  // By its name it waits for minutes before it looks for its master.
  configure("CLIENT_NAME = waits\nORB_BIND = 127.0.0.1\nORB_PORT.DiscoveryService = " +
            std::to_string(port()) + "\n");
  NotifySocket manager(root / "notify");
  auto const process = start({}, {{"NOTIFY_SOCKET", root / "notify"}});
  EXPECT_TRUE(
      manager.await("READY=1\nSTATUS=Serving; SERVER is missing in " + root / "etc/tq.conf"))
      << process->errors();
  EXPECT_THAT(process->errors(), HasSubstr("SERVER is missing in " + root / "etc/tq.conf"));
  process->sendSignal(SIGTERM);
  ASSERT_TRUE(process->wait());
  EXPECT_EQ(process->exitCode(), 0) << process->errors();
}

// Neither depends on the user who runs the test.
TEST_F(TqdiscoCommandTest, aDatabaseThatCannotBeMadeOrWrittenFailsTheStartWithALineAndItsOwnStatus)
{
  configureService();
  writeText(root / "db", "no directory");
  NotifySocket manager(root / "notify");
  auto process = start({}, {{"NOTIFY_SOCKET", root / "notify"}});
  ASSERT_TRUE(process->wait());
  EXPECT_EQ(process->exitCode(), 4);
  EXPECT_THAT(process->errors(), HasSubstr("The database directory " + root / "db/discovery" +
                                           " cannot be made: Not a directory"));
  EXPECT_EQ(tqtest::occurrences(process->errors(), "\n"), 1U) << process->errors();
  EXPECT_TRUE(manager.await("STATUS=Start failed: The database directory"));

  std::filesystem::remove(root / "db");
  std::filesystem::create_directory(root / "db");
  std::filesystem::create_directory_symlink("/proc", root / "db/discovery");
  process = start({});
  ASSERT_TRUE(process->wait());
  EXPECT_EQ(process->exitCode(), 4);
  EXPECT_THAT(process->errors(), HasSubstr(root / "db/discovery" + " cannot be written: "));
  EXPECT_THAT(process->errors(), Not(HasSubstr("Started")));

  // It keeps nothing, so it needs no place for it.
  configureService("REPORT_CLIENT_DISCOVERIES = no\n");
  EXPECT_EQ(run({})->exitCode(), 0);
}

TEST_F(TqdiscoCommandTest, aPortInUseFailsTheStartAndSaysWhere)
{
  occupyPort();
  configureService();
  auto const process = run({});
  EXPECT_EQ(process->exitCode(), 1);
  EXPECT_THAT(process->errors(), HasSubstr("Unable to listen on 127.0.0.1:" +
                                           std::to_string(port()) + ": Address already in use"));
}

TEST_F(TqdiscoCommandTest, aFailedStartIsToldOnStandardErrorAndInTheLog)
{
  occupyPort();
  std::filesystem::create_directories(root / "log");
  configureService("LOG_FILE = " + root / "log/tqdisco.log" + "\n");
  auto const process = run({});
  EXPECT_EQ(process->exitCode(), 1);
  EXPECT_THAT(process->errors(), HasSubstr("Unable to listen on 127.0.0.1:"));
  EXPECT_THAT(readText(root / "log/tqdisco.log"), HasSubstr("Unable to listen on 127.0.0.1:"));
}

TEST_F(TqdiscoCommandTest, aMissingServiceLibraryFailsTheStartAndIsNamed)
{
  // A copy of the program with the framework beside it and no service.
  std::filesystem::create_directories(root / "bin");
  std::filesystem::create_directories(root / "lib");
  std::filesystem::copy_file(TQ_BIN_DIR "/tqdisco", root / "bin/tqdisco");
  std::filesystem::copy_file(TQ_LIB_DIR "/libozf.so.1", root / "lib/libozf.so.1");
  configureService();
  auto const process = run({}, root / "bin/tqdisco");
  EXPECT_EQ(process->exitCode(), 1) << process->errors();
  EXPECT_THAT(process->errors(), HasSubstr("libtqdiscovery.so.1"));
}

TEST_F(TqdiscoCommandTest, aConfigurationThatIsThereAndCannotBeReadFailsTheStart)
{
  std::filesystem::remove(root / "etc/tq.conf");
  std::filesystem::create_directories(root / "etc/tq.conf");
  auto const process = run({});
  EXPECT_EQ(process->exitCode(), 1) << process->errors();
  EXPECT_THAT(process->errors(), HasSubstr("not a regular file"));
  EXPECT_THAT(process->errors(), HasSubstr("Not started without"));
}

TEST_F(TqdiscoCommandTest, aConfigurationThatSaysSoKeepsTheServiceFromStarting)
{
  configureService("REPORT_CLIENT_DISCOVERIES = false\n");
  auto const process = run({});
  EXPECT_EQ(process->exitCode(), 0) << process->errors();
  EXPECT_THAT(process->errors(), HasSubstr("Not started"));
}

// A manager takes an end before that for a failed start, and starts it again.
TEST_F(TqdiscoCommandTest, aServiceThatIsNotToStartIsNoFailedStartToTheManager)
{
  configureService("REPORT_CLIENT_DISCOVERIES = false\n");
  NotifySocket manager(root / "notify");
  auto const process = start({}, {{"NOTIFY_SOCKET", root / "notify"}});
  EXPECT_TRUE(manager.await("READY=1\nSTATUS=Not started, as the configuration says"))
      << process->errors();
  ASSERT_TRUE(process->wait()) << process->errors();
  EXPECT_EQ(process->exitCode(), 0) << process->errors();
}

TEST_F(TqdiscoCommandTest, theSampleConfigurationIsInOrderAndKeepsRoutineLinesOut)
{
  std::string const sample = readText(TQ_SOURCE_DIR "/packaging/tq.conf.sample");
  configure(sample);
  auto const check = run({"--check-config"});
  EXPECT_EQ(check->exitCode(), 0) << check->errors();

  std::string excepted;
  std::istringstream lines(sample);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with("LOG_EXCEPT "))
      excepted += line + '\n';
  configureService(excepted);
  auto const process = start({});
  ASSERT_TRUE(process->awaitError("Started, version")) << process->errors();
  EXPECT_EQ(tqtest::runProgram(TQ_BIN_DIR "/tqdiscoctl", {"put", "web7", "rack", "Row=7"},
                               {{"TESSARINE_ROOT", root.path()}})
                .exitCode,
            0);
  process->sendSignal(SIGTERM);
  ASSERT_TRUE(process->wait()) << process->errors();
  EXPECT_THAT(process->errors(), Not(HasSubstr("::persist: Successfully renamed ")));
  EXPECT_THAT(process->errors(), Not(HasSubstr("::persist: Unable to delete ")));
  EXPECT_EQ(tqtest::occurrences(process->errors(), "Kept out 1 line in "), 2U) << process->errors();
}

TEST_F(TqdiscoCommandTest, mistakesOfTheConfigurationAreLoggedAndDoNotStopTheStart)
{
  configureService("UNHEARD_OF = 1\n");
  auto const process = start({});
  ASSERT_TRUE(process->awaitError("Started, version " TQ_VERSION)) << process->errors();
  EXPECT_THAT(process->errors(), HasSubstr("etc/tq.conf:6:"));
  process->sendSignal(SIGTERM);
  ASSERT_TRUE(process->wait()) << process->errors();
  EXPECT_EQ(process->exitCode(), 0) << process->errors();
}

TEST_F(TqdiscoCommandTest, termAndInterruptStopTheServiceInOrder)
{
  for (int const signal : {SIGTERM, SIGINT})
  {
    configureService();
    auto const process = start({});
    ASSERT_TRUE(process->awaitError("Started, version")) << process->errors();
    process->sendSignal(SIGPIPE);
    process->sendSignal(signal);
    process->sendSignal(SIGTERM);
    ASSERT_TRUE(process->wait()) << process->errors();
    EXPECT_EQ(process->exitCode(), 0) << process->errors();
    EXPECT_THAT(process->errors(), HasSubstr("main: Stopped"));
  }
}

TEST_F(TqdiscoCommandTest, hangUpReadsTheLogSettingsAgain)
{
  std::filesystem::create_directories(root / "log");
  configureService();
  auto const process = start({});
  ASSERT_TRUE(process->awaitError("Started, version")) << process->errors();
  configureService("LOG_LEVEL = 6\nLOG_FILE = " + root / "log/new.log" + "\n");
  process->sendSignal(SIGHUP);
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (readIfThere("log/new.log").find("Set the log up anew") == std::string::npos)
  {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  process->sendSignal(SIGTERM);
  ASSERT_TRUE(process->wait());
  EXPECT_EQ(process->exitCode(), 0);
}

TEST_F(TqdiscoCommandTest, tellsTheServiceManagerHowItIs)
{
  configureService();
  NotifySocket manager(root / "notify");
  auto const process = start({}, {{"NOTIFY_SOCKET", root / "notify"}, {"WATCHDOG_USEC", "200000"}});
  EXPECT_TRUE(manager.await("READY=1")) << process->errors();
  EXPECT_TRUE(manager.await("WATCHDOG=1")) << process->errors();
  process->sendSignal(SIGTERM);
  EXPECT_TRUE(manager.await("STOPPING=1")) << process->errors();
  ASSERT_TRUE(process->wait());
  EXPECT_EQ(process->exitCode(), 0);
}

// Without descriptors it is alive and cannot be reached.
// The sanitizers look at memory through a pipe, and end a process that gets none.
#ifdef TQ_PLAIN_BUILD
TEST_F(TqdiscoCommandTest, tellsTheWatchdogNothingWhileItsPortDoesNotAnswer)
{
  configureService();
  NotifySocket manager(root / "notify");
  auto const process = start({}, {{"NOTIFY_SOCKET", root / "notify"}, {"WATCHDOG_USEC", "400000"}});
  ASSERT_TRUE(manager.await("READY=1")) << process->errors();
  ASSERT_TRUE(manager.await("WATCHDOG=1")) << process->errors();
  rlimit before{};
  rlimit none{};
  ASSERT_EQ(prlimit(process->pid(), RLIMIT_NOFILE, nullptr, &before), 0);
  none.rlim_cur = 0;
  none.rlim_max = before.rlim_max;
  ASSERT_EQ(prlimit(process->pid(), RLIMIT_NOFILE, &none, nullptr), 0);
  ASSERT_TRUE(process->awaitError("The service's own port does not answer")) << process->errors();
  // What was told before may still be there to be read.
  while (manager.await("WATCHDOG=1", std::chrono::milliseconds(100)))
    ;
  EXPECT_FALSE(manager.await("WATCHDOG=1", std::chrono::milliseconds(700)));
  ASSERT_EQ(prlimit(process->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
  process->sendSignal(SIGTERM);
  EXPECT_TRUE(manager.await("STOPPING=1")) << process->errors();
  ASSERT_TRUE(process->wait());
  EXPECT_EQ(process->exitCode(), 0) << process->errors();
}
#endif
