// What a service takes at a reload, and what it leaves.

#include "tests/support/LiveService.h"

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>

namespace
{

using testing::HasSubstr;
using testing::Not;
using tqtest::LiveService;

class ConfigurationReloadTest : public testing::Test
{
protected:
  ConfigurationReloadTest() { std::filesystem::create_directory(m_service / "etc/tq.conf.d"); }

  void reload(std::string const& sign)
  {
    m_service.process().sendSignal(SIGHUP);
    ASSERT_TRUE(m_service.process().awaitError(sign)) << m_service.log();
  }

  LiveService m_service;
};

constexpr char REFUSED[] = "The configuration is refused, what held before holds on: ";

} // namespace

TEST_F(ConfigurationReloadTest, takesWhatItCanAndNamesTheKeysThatWait)
{
  m_service.addExplorers();
  m_service.configure("EXPLORER_INTERVAL.service = 1s\n");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  m_service.configure("EXPLORER_INTERVAL.service = 1s\n"
                      "REPORT_CLIENT_DISCOVERIES = no\nLOG_LEVEL = 4\nMETADATA_CACHE = 0\n");
  reload("Took the configuration, changed are LOG_LEVEL");
  EXPECT_THAT(m_service.log(),
              HasSubstr("REPORT_CLIENT_DISCOVERIES waits for the next start of the service"));
  EXPECT_THAT(m_service.log(), HasSubstr("METADATA_CACHE waits for the next start of the service"));
  EXPECT_TRUE(tqtest::eventually(
      [&]
      {
        return m_service.tqdiscoctl({"status"})
                   .errors.find("tqtestmaster with METADATA_CACHE, REPORT_CLIENT_DISCOVERIES") !=
               std::string::npos;
      }))
      << "the status tells, too";
  m_service.configure("EXPLORER_INTERVAL.service = 1s\nLOG_LEVEL = 4\n");
  reload("in which no value has changed");
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(ConfigurationReloadTest, refusesAConfigurationWithAMistakeWhole)
{
  ASSERT_TRUE(m_service.start()) << m_service.log();
  std::string const further = m_service / "etc/tq.conf.d/10-site.conf";
  m_service.configure("ALLOW_READ = none\n");
  writeText(further, "LOG_LEVEL = loud\n");
  reload(REFUSED + further + ":1: \"LOG_LEVEL\" is \"loud\"; accepted");
  EXPECT_EQ(m_service.tqdiscoctl({"query"}).exitCode, 3) << "who may read is as it was";
  EXPECT_THAT(m_service.log(), Not(HasSubstr("Took the ")));
  std::filesystem::remove(further);
  std::filesystem::create_symlink("away", further);
  reload(REFUSED + further + ": cannot be read: No such file or directory");
  EXPECT_EQ(m_service.tqdiscoctl({"query"}).exitCode, 3);
  std::filesystem::remove(further);
  reload("Took the configuration, changed are ALLOW_READ");
  EXPECT_EQ(m_service.tqdiscoctl({"query"}).exitCode, 6);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(ConfigurationReloadTest, aServiceThatLostItsMasterInTheFileKeepsIt)
{
  ASSERT_TRUE(m_service.start()) << m_service.log();
  std::string const text = readText(m_service / "etc/tq.conf");
  writeText(m_service / "etc/tq.conf", text.substr(text.find('\n') + 1));
  reload(REFUSED + (m_service / "etc/tq.conf") + ": SERVER is missing");
  EXPECT_EQ(
      m_service.tqdiscoctl({"--master", "127.0.0.1:" + std::to_string(m_service.port()), "query"})
          .exitCode,
      3);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

// The pass comes every five seconds.
TEST_F(ConfigurationReloadTest, anExplorerRunsByItsNewInterval)
{
  m_service.addExplorers();
  m_service.configure("EXPLORER_INTERVAL.host = 1d\n");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  std::string const found = m_service.database() + "/2 host " + LiveService::NAME + ".dat";
  namespace fs = std::filesystem;
  ASSERT_TRUE(tqtest::eventually([&] { return fs::exists(found); })) << m_service.log();
  auto const before = fs::last_write_time(found);
  m_service.configure("EXPLORER_INTERVAL.host = 1s\n");
  reload("changed are EXPLORER_INTERVAL.host");
  EXPECT_TRUE(tqtest::eventually([&] { return fs::last_write_time(found) != before; }))
      << m_service.log();
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

namespace
{

// Two masters and a client, each at an address of its own and all on one port.
class MovedClientTest : public testing::Test
{
protected:
  static std::string configuration(std::string const& name, std::string const& server,
                                   unsigned short port)
  {
    std::string text = "SERVER = " + server + "\nCLIENT_NAME = " + name +
                       "\nORB_PORT.DiscoveryService = " + std::to_string(port) + '\n';
    for (auto const& [host, address] : ADDRESSES)
      text += "HOST_ADDRESS." + std::string(host) + " = " + address + '\n' +
              (name == host ? "ORB_BIND = " + std::string(address) + '\n' : "");
    return text;
  }

  void configure(LiveService& service, std::string const& name, std::string const& server)
  {
    writeText(service / "etc/tq.conf", configuration(name, server, m_client.port()));
  }

  // The client's name begins with a number for which it waits for no second.
  static constexpr std::pair<char const*, char const*> ADDRESSES[] = {
      {"first", "127.0.0.31"}, {"second", "127.0.0.32"}, {"4a", "127.0.0.33"}};

  LiveService m_first;
  LiveService m_second;
  LiveService m_client{LiveService::WITH_EXPLORERS};
};

} // namespace

TEST_F(MovedClientTest, announcesItselfToItsNewMasterAndReportsThere)
{
  configure(m_first, "first", "first");
  configure(m_second, "second", "second");
  configure(m_client, "4a", "first");
  for (LiveService* const service : {&m_first, &m_second, &m_client})
    ASSERT_TRUE(service->start()) << service->log();
  constexpr char ANNOUNCED[] = "Successfully registered explorers with master";
  ASSERT_TRUE(m_client.process().awaitError(ANNOUNCED)) << m_client.log();

  configure(m_client, "4a", "second");
  m_client.process().sendSignal(SIGHUP);
  ASSERT_TRUE(m_client.process().awaitError("changed are SERVER")) << m_client.log();
  EXPECT_TRUE(tqtest::eventually(
      [&] { return std::filesystem::exists(m_second.database() + "/2 service 4a.xml"); }))
      << m_client.log();
  EXPECT_TRUE(tqtest::eventually(
      [&] { return std::filesystem::exists(m_second.database() + "/4 volume 4a.xml"); }))
      << m_client.log();

  // To be the master itself it would have to begin anew.
  configure(m_client, "4a", "4a");
  m_client.process().sendSignal(SIGHUP);
  EXPECT_TRUE(m_client.process().awaitError("SERVER waits for the next start of the service"))
      << m_client.log();
  for (LiveService* const service : {&m_client, &m_first, &m_second})
    EXPECT_EQ(service->stop(), 0) << service->log();
}
