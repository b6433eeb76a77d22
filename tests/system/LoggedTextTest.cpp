// What peers, files and the configuration can bring into the log of a service, its
// audit log, and what it says on standard error.

#include "tests/support/HarmfulText.h"
#include "tests/support/LiveService.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
namespace wire = client::Remote;

// Whatever is called, and whatever comes of it.
template <class Call>
void attempt(Call call)
{
  try
  {
    call();
  }
  catch (CORBA::Exception const&)
  {
  }
}

void sendRaw(unsigned short port, std::string const& bytes)
{
  int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  name.sin_port = htons(port);
  timeval const limit{30, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  char answer[256];
  // Whatever it is, or the end: it has been dealt with then.
  EXPECT_TRUE(connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0 &&
              send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0 &&
              recv(fd, answer, sizeof answer, 0) >= 0)
      << std::strerror(errno);
  close(fd);
}

// A request of version 1.0 for an object and an operation of those names.
std::string requestFor(std::string const& key, std::string const& operation)
{
  auto const number = [](std::size_t value)
  {
    return std::string{static_cast<char>(value & 0xFF), static_cast<char>(value >> 8 & 0xFF), 0, 0};
  };
  auto const padded = [](std::string text)
  {
    text.resize((text.size() + 3) / 4 * 4);
    return text;
  };
  std::string const body = number(0) + number(7) + padded("\1") + number(key.size()) + padded(key) +
                           number(operation.size() + 1) + padded(operation + '\0') + number(0);
  return std::string("GIOP\1\0\1\0", 8) + number(body.size()) + body;
}

struct LoggedTextTest : testing::Test
{
  LiveService service;
  std::string const audit = service / "audit.log";
  std::string const text = harmfulText();

  void expectHarmless()
  {
    EXPECT_EQ(harmIn(service.log()), "") << service.log();
    EXPECT_EQ(harmIn(readText(audit)), "") << readText(audit);
  }
};

} // namespace

TEST_F(LoggedTextTest, whatPeersSendHarmsNeitherLog)
{
  service.configure("LOG_LEVEL = 6\nAUDIT_FILE = " + audit + "\n");
  ASSERT_TRUE(service.start()) << service.log();
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    char const* const name = text.c_str();
    wire::Discovery record = client::makeRecord(text, text);
    record.sourceHost = name;
    record.sourceServiceName = name;
    attempt([&] { client.store(record, text); });
    attempt([&] { client.store(text, "kept", "<x/>"); });
    record.attributes.priority = 0;
    attempt([&] { client.store(record, text); });
    attempt([&] { client.subjects(text); });
    attempt(
        [&]
        { client->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_TQUCLIENT, name, name); });
    for (std::string const& filter : {text, "<FilterParameters>" + harmfulXml()})
    {
      wire::CollectionDataIterator_var data;
      attempt([&] { client->getCollectionData(record, filter.c_str(), data.out()); });
      attempt(
          [&] {
            client->getCollectionData(client::makeRecord(text, "not there"), filter.c_str(),
                                      data.out());
          });
    }
    attempt([&] { client->registerExplorer(name, name, name, name, client::AT_EXTSRC, 3); });
    attempt([&] { client->registerExplorer("h", "s", name, name, client::AT_EXTSRC, 2); });
    attempt([&] { client->registerExplorer(name, name, "", "", client::AT_EXTSRC, 2); });
    // A pull leads to a host of that name.
    record.authType = client::AT_EXTSRC;
    wire::CollectionDataIterator_var data;
    attempt([&] { client->getCollectionData(record, "", data.out()); });
    attempt([&] { client->restartAllPushTimers(); });
  }
  sendRaw(service.port(), requestFor("DiscoveryService", text));
  sendRaw(service.port(), requestFor(text, "queryDiscoveries"));
  sendRaw(service.port(), "GIOP" + text);
  sendRaw(service.port(), "\x16\x03\x01" + text);
  EXPECT_EQ(service.stop(), 0) << service.log();
  expectHarmless();
  EXPECT_THAT(service.log(), HasSubstr(std::string("\\x0A") + FORGED));
  EXPECT_THAT(readText(audit), HasSubstr(std::string("%0A") + FORGED));
}

TEST_F(LoggedTextTest, whatFilesHoldHarmsNoLog)
{
  std::string fileName = text;
  for (std::size_t at; (at = fileName.find('/')) != std::string::npos;)
    fileName[at] = '_';
  std::filesystem::create_directories(service.database());
  writeText(service.database() + "/2 " + fileName + ".xml", "no document " + text);
  writeText(service.database() + "/" + fileName + ".updating", text);
  writeText(service.database() + "/2 a b.xml", "<DiscoveryData><Subject Name=\"" + harmfulXml() +
                                                   "\"><Unknown>" + harmfulXml() +
                                                   "</Unknown></Subject></DiscoveryData>");
  writeText(service / "lib/plugins/libtqplugin-" + fileName + ".so", text);
  std::filesystem::permissions(service / "lib/plugins/libtqplugin-" + fileName + ".so",
                               std::filesystem::perms(0644));
  service.configure("LOG_LEVEL = 6\nAUDIT_FILE = " + audit + "\nBAD KEY " + harmfulXml() +
                    "\nUNKNOWN_\u202E\u2066 = \u200F\u2028\n" + "X" + harmfulXml() + " = " +
                    harmfulXml() + "\nLOG_LEVEL = " + harmfulXml() + "\n" + text +
                    "\nLOG_LEVEL = 6\n");
  ASSERT_TRUE(service.start()) << service.log();
  EXPECT_EQ(service.tqdiscoctl({"query"}).exitCode, 3);
  for (std::vector<std::string> const& words : {std::vector<std::string>{"db", "list"},
                                                {"db", "list", "--json"},
                                                {"db", "verify"},
                                                {"db", "verify", "--json"},
                                                {"db", "forget", "*", "--dry-run"},
                                                {"db", "list", "-d", text}})
  {
    Outcome const outcome = service.tqdiscoctl(words);
    EXPECT_EQ(harmIn(outcome.output + outcome.errors), "")
        << words[1] << outcome.output << outcome.errors;
  }
  EXPECT_EQ(service.stop(), 0) << service.log();
  expectHarmless();
  EXPECT_THAT(service.log(), HasSubstr(".so is not a library"));

  Outcome const check = runProgram(service.program("tqdisco"), {"--check-config"},
                                   {{"TESSARINE_ROOT", service.root()}});
  EXPECT_EQ(check.exitCode, 2);
  EXPECT_EQ(harmIn(check.errors), "") << check.errors;
  EXPECT_THAT(check.errors, HasSubstr("\\xE2\\x80\\xAE"));
}

// A line break in a status would begin another assignment.
TEST_F(LoggedTextTest, theServiceManagerIsToldNothingElse)
{
  NotifySocket manager(service / "notify");
  std::string const root = service / "x\nWATCHDOG=trigger";
  std::filesystem::create_directories(root + "/etc");
  std::filesystem::copy_file(service / "etc/tq.conf", root + "/etc/tq.conf");
  writeText(root + "/db", "in the way");
  Process process(service.program("tqdisco"), {},
                  {{"TESSARINE_ROOT", root}, {"NOTIFY_SOCKET", service / "notify"}});
  ASSERT_TRUE(process.wait()) << process.errors();
  EXPECT_EQ(process.exitCode(), 4) << process.errors();
  EXPECT_TRUE(manager.await("x\\x0AWATCHDOG=trigger/db", std::chrono::seconds(1)))
      << process.errors();
  EXPECT_EQ(harmIn(process.errors()), "") << process.errors();
}
