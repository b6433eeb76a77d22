// The life of a service process: start, exploration, stop, start again.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/un.h>

#include <set>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::Not;

nlohmann::json stored(LiveService const& service)
{
  Outcome const outcome = service.tqdiscoctl({"db", "list", "--json"});
  return outcome.output.empty() ? nlohmann::json::array() : nlohmann::json::parse(outcome.output);
}

bool hasReported(LiveService const& service, std::set<std::string> const& authorities)
{
  std::set<std::string> found;
  for (auto const& record : stored(service))
    found.insert(record["authority"].get<std::string>());
  return std::includes(found.begin(), found.end(), authorities.begin(), authorities.end());
}

bool startsAndReports(LiveService& service)
{
  return service.start() && eventually(
                                [&] {
                                  return hasReported(service, {"host", "filesystem"});
                                },
                                std::chrono::seconds(60));
}

// Where a service manager would listen.
class Manager
{
public:
  explicit Manager(std::string const& path)
      : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
  {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&name), sizeof name) != 0)
      ADD_FAILURE() << "cannot bind " << path;
  }
  ~Manager() { close(m_fd); }
  Manager(Manager const&) = delete;
  Manager& operator=(Manager const&) = delete;

  // All messages that came, a line each part.
  std::string const& heard()
  {
    char buffer[4096];
    for (ssize_t count; (count = recv(m_fd, buffer, sizeof buffer, 0)) > 0;)
      m_heard.append(buffer, static_cast<std::size_t>(count)) += '\n';
    return m_heard;
  }

private:
  int m_fd;
  std::string m_heard;
};

// Whether anybody listens on the port.
bool accepts(unsigned short port)
{
  int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  name.sin_port = htons(port);
  bool const connected = connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0;
  close(fd);
  return connected;
}

TEST(ServiceTest, theExplorersReportSoonAfterTheStart)
{
  LiveService service(LiveService::WITH_EXPLORERS);
  ASSERT_TRUE(startsAndReports(service)) << service.log();
  for (auto const& record : stored(service))
  {
    EXPECT_FALSE(record["expired"].get<bool>()) << record;
    EXPECT_GT(record["payloadBytes"].get<int>(), 0) << record;
  }
  EXPECT_EQ(service.tqdiscoctl({"db", "verify"}).exitCode, 0);
  EXPECT_EQ(service.stop(), 0) << service.log();
}

TEST(ServiceTest, termAndInterruptStopItInOrder)
{
  for (int const signal : {SIGTERM, SIGINT})
  {
    LiveService service(LiveService::WITH_EXPLORERS);
    ASSERT_TRUE(service.start()) << service.log();
    EXPECT_TRUE(accepts(service.port()));
    EXPECT_EQ(service.stop(signal), 0) << service.log();
    EXPECT_THAT(service.log(), HasSubstr("main: Stopped"));
    EXPECT_FALSE(accepts(service.port()));
  }
}

TEST(ServiceTest, moreSignalsDuringTheStopHarmNothing)
{
  LiveService service(LiveService::WITH_EXPLORERS);
  ASSERT_TRUE(service.start()) << service.log();
  ASSERT_TRUE(eventually([&] { return hasReported(service, {"host"}); }, std::chrono::seconds(60)))
      << service.log();
  while (service.process().running())
    for (int const signal : {SIGTERM, SIGINT, SIGHUP, SIGTERM})
      service.process().sendSignal(signal);
  ASSERT_TRUE(service.process().wait());
  EXPECT_EQ(service.process().exitCode(), 0) << service.log();
  EXPECT_THAT(service.log(), HasSubstr("main: Stopped"));
  Outcome const verified = service.tqdiscoctl({"db", "verify"});
  EXPECT_EQ(verified.exitCode, 0) << verified.output;
  EXPECT_THAT(verified.output, Not(HasSubstr("is being written")));
}

TEST(ServiceTest, aHostThatIsNotToReportEndsWithoutListening)
{
  LiveService service;
  service.configure("REPORT_CLIENT_DISCOVERIES = false\nLOG_LEVEL = 4\n");
  Process& process = service.launch();
  ASSERT_TRUE(process.wait()) << service.log();
  EXPECT_EQ(process.exitCode(), 0) << service.log();
  EXPECT_THAT(service.log(),
              HasSubstr("Shutting down tqdisco as directed by REPORT_CLIENT_DISCOVERIES=FALSE"));
  EXPECT_FALSE(accepts(service.port()));
  EXPECT_FALSE(std::filesystem::exists(service.database()));
}

TEST(ServiceTest, tellsTheServiceManagerOfStartAndStopInOrder)
{
  LiveService service;
  Manager manager(service / "notify");
  ASSERT_TRUE(service.start({{"NOTIFY_SOCKET", service / "notify"}})) << service.log();
  ASSERT_TRUE(eventually([&] { return manager.heard().find("READY=1") != std::string::npos; }));
  EXPECT_TRUE(accepts(service.port())) << "ready means that it listens";
  EXPECT_THAT(manager.heard(), Not(HasSubstr("STOPPING=1")));
  EXPECT_EQ(service.stop(), 0) << service.log();
  EXPECT_THAT(manager.heard(), HasSubstr("STOPPING=1"));
  EXPECT_EQ(occurrences(manager.heard(), "READY=1"), 1U);
}

TEST(ServiceTest, startsAgainOnTheSameRootAndKeepsWhatIsStored)
{
  LiveService service(LiveService::WITH_EXPLORERS);
  ASSERT_TRUE(startsAndReports(service)) << service.log();
  ASSERT_EQ(service.stop(), 0) << service.log();
  writeText(service.database() + "/3.updating", "left behind");

  std::filesystem::remove(service / "lib/libtqexplorer.so"); // nothing is explored anew
  ASSERT_TRUE(service.start()) << service.log();
  EXPECT_TRUE(accepts(service.port()));
  EXPECT_THAT(service.log(),
              HasSubstr("Deleting temporary file " + service.database() + "/3.updating"));
  EXPECT_FALSE(std::filesystem::exists(service.database() + "/3.updating"));
  EXPECT_TRUE(hasReported(service, {"host", "filesystem"}));
  EXPECT_EQ(service.stop(), 0) << service.log();
  EXPECT_EQ(service.tqdiscoctl({"db", "verify"}).exitCode, 0);
}

TEST(ServiceTest, aKilledServiceStartsAgainOnTheSameRoot)
{
  LiveService service(LiveService::WITH_EXPLORERS);
  ASSERT_TRUE(startsAndReports(service)) << service.log();
  EXPECT_EQ(service.stop(SIGKILL), 128 + SIGKILL);
  ASSERT_TRUE(service.start()) << service.log();
  EXPECT_TRUE(accepts(service.port()));
  EXPECT_EQ(service.stop(), 0) << service.log();
  EXPECT_EQ(service.tqdiscoctl({"db", "verify"}).exitCode, 0);
}

// Holds for every user, root included, whom permissions do not stop. A client keeps
// nothing; a master does not start so.
TEST(ServiceTest, aClientServesOnWhenItsDatabaseDirectoryCannotBeMade)
{
  LiveService service(LiveService::WITH_EXPLORERS);
  service.configure("SERVER = elsewhere\nHOST_ADDRESS.elsewhere = 127.0.0.9\n");
  writeText(service / "db", "a file in the directory's place");
  ASSERT_TRUE(service.start()) << service.log();
  EXPECT_THAT(service.log(), HasSubstr("Unable to create directory path " + service.database() +
                                       ", error " + std::to_string(ENOTDIR)));
  EXPECT_TRUE(accepts(service.port()));
  EXPECT_EQ(service.stop(), 0) << service.log();
}

TEST(ServiceTest, servesOnWhenTheDatabaseDirectoryGoesAway)
{
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  std::filesystem::remove_all(service / "db");
  writeText(service / "db", "a file in the directory's place");
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    EXPECT_NE(client.store("subject", "authority", "<x/>"), client::DS_SUCCESS);
  }
  EXPECT_TRUE(service.process().awaitError("Update.lock")) << service.log();
  EXPECT_TRUE(service.process().awaitError("Last error" + std::to_string(ENOTDIR)))
      << service.log();
  EXPECT_TRUE(accepts(service.port()));
  EXPECT_EQ(service.stop(), 0) << service.log();
}

} // namespace
