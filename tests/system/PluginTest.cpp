// Plug-ins that are not as they should be: the service is up all the same, and
// the log names each.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

class PluginTest : public testing::Test
{
protected:
  void start(std::string const& more = "LOG_LEVEL = 6\n")
  {
    m_service.configure(more);
    ASSERT_TRUE(m_service.start()) << m_service.log();
  }

  std::string fileOf(std::string const& name) const
  {
    return m_service / ("lib/plugins/libtqplugin-" + name + ".so");
  }

  // The line of the log that holds text; empty when there is none.
  std::string lineWith(std::string const& text) const
  {
    std::istringstream lines(m_service.log());
    for (std::string line; std::getline(lines, line);)
      if (line.find(text) != std::string::npos)
        return line;
    return {};
  }

  // It serves, and the good plug-in beside the bad one was registered.
  void expectServing()
  {
    {
      client::Client client(m_service.root(), LiveService::NAME);
      ASSERT_TRUE(client.connected());
      EXPECT_EQ(client.store("subject", "authority", "<x/>"), client::DS_SUCCESS);
      EXPECT_EQ(client.read("subject", "authority"), "<x/>");
    }
    EXPECT_NE(lineWith("Registration of explorers in tqplugin-zgood completed"), "")
        << m_service.log();
    EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  }

  // Loaded after all the others: a bad one must not end the round.
  void addGood() { m_service.addPlugin("discovery_explorers", "zgood"); }

  LiveService m_service;
};

} // namespace

TEST_F(PluginTest, oneThatLacksTheEntryIsLeftOut)
{
  m_service.addPlugin("discovery_barren", "barren");
  addGood();
  start();
  EXPECT_NE(lineWith("Plug-in tqplugin-barren lacks the symbol"), "") << m_service.log();
  EXPECT_NE(lineWith("Did not find the explorer interface on plugin tqplugin-barren"), "");
  expectServing();
}

TEST_F(PluginTest, oneThatLacksWhatItNeedsIsToldWithTheSymbol)
{
  m_service.addPlugin("tqplugin-unbound", "unbound");
  addGood();
  start();
  EXPECT_THAT(lineWith("Unable to load library " + fileOf("unbound")),
              HasSubstr("undefined symbol"));
  expectServing();
}

TEST_F(PluginTest, aFileThatIsNoLibraryIsRefused)
{
  writeText(fileOf("text"), "this is no library\n");
  writeText(fileOf("empty"), "");
  fs::copy_file(TQ_FIXTURE_DIR "/libdiscovery_explorers.so", fileOf("cut"));
  fs::resize_file(fileOf("cut"), 8192); // before the end of its last segment
  fs::create_directory(fileOf("directory"));
  fs::create_symlink("nowhere", fileOf("dangling"));
  for (char const* const name : {"text", "empty", "cut"})
    fs::permissions(fileOf(name), fs::perms(0755));
  addGood();
  start("LOG_LEVEL = 4\n");
  EXPECT_THAT(lineWith("Library " + fileOf("text")), HasSubstr("is not a library"));
  EXPECT_THAT(lineWith("Library " + fileOf("empty")), HasSubstr("is not a library"));
  EXPECT_THAT(lineWith("Library " + fileOf("cut")), HasSubstr("is cut short"));
  EXPECT_THAT(lineWith("Library " + fileOf("directory")), HasSubstr("is not a regular file"));
  EXPECT_THAT(lineWith("Library " + fileOf("dangling")), HasSubstr("cannot be followed"));
  expectServing();
}

TEST_F(PluginTest, oneThatThrowsIsToldWithWhatItThrew)
{
  m_service.addPlugin("discovery_throwing", "throwing");
  addGood();
  start("LOG_LEVEL = 4\n");
  EXPECT_THAT(lineWith("Caught exception from plug-in tqplugin-throwing"), HasSubstr("no licence"));
  expectServing();
}

TEST_F(PluginTest, theSecondRegistrationOfOnePlaceIsNamedByTheLoader)
{
  m_service.addPlugin("discovery_twice", "twice");
  addGood();
  start("LOG_LEVEL = 4\n");
  EXPECT_NE(lineWith("1 ExplorerLoader::libraryCallback: Explorer of tqplugin-twice is not used, "
                     "authority fixture, type 2, priority 7: authority fixture, type 2, priority 7 "
                     "has its place"),
            "")
      << m_service.log();
  EXPECT_NE(lineWith("Registration of explorers in tqplugin-twice completed"), "")
      << m_service.log();
  expectServing();
}

TEST_F(PluginTest, oneThatOthersMayWriteToIsRefused)
{
  m_service.addPlugin("discovery_explorers", "open");
  fs::permissions(fileOf("open"), fs::perms(0777));
  addGood();
  start("LOG_LEVEL = 4\n");
  EXPECT_THAT(lineWith("Library " + fileOf("open") + " is refused"),
              HasSubstr("may be written to by others than its owner"));
  EXPECT_EQ(lineWith("Registration of explorers in tqplugin-open"), "");
  expectServing();
}

TEST_F(PluginTest, aFolderThatOthersMayWriteToIsRefusedWithAllThatIsInIt)
{
  addGood();
  fs::permissions(m_service / "lib/plugins", fs::perms(01777));
  start("LOG_LEVEL = 4\n");
  EXPECT_THAT(lineWith("Library " + fileOf("zgood") + " is refused"),
              HasSubstr("lib/plugins may be written to by others than its owner"));
  EXPECT_THAT(m_service.log(), Not(HasSubstr("Registration of explorers in tqplugin-zgood")));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(PluginTest, allBadOnesTogetherLeaveTheServiceUp)
{
  for (char const* const fixture : {"discovery_barren", "discovery_throwing", "discovery_twice",
                                    "tqplugin-lacking", "tqplugin-throwing", "tqplugin-unbound"})
    m_service.addPlugin(fixture, std::string("bad-") + fixture);
  writeText(fileOf("bad-text"), "this is no library\n");
  addGood();
  start("LOG_LEVEL = 4\n");
  expectServing();
}
