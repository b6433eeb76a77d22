// Facts by script, from the file in explorers.d to what the operator reads.

#include "tests/support/CommandTest.h"
#include "tests/support/Scripts.h"

#include <gmock/gmock.h>

#include <csignal>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::HasSubstr;

std::string const EXAMPLES = std::string(TQ_SOURCE_DIR) + "/examples/scripts/";

class ScriptsTest : public CommandTest
{
protected:
  ScriptsTest() : CommandTest(LiveService::WITH_EXPLORERS)
  {
    namespace fs = std::filesystem;
    fs::create_directory(m_folder);
    fs::permissions(m_folder, fs::perms(0755));
    for (std::string const file : {"load.sh", "load.conf", "accounts.py"})
      fs::copy_file(EXAMPLES + file, m_folder + "/" + file);
    fs::permissions(m_folder + "/load.conf", fs::perms(0644));
    for (std::string const file : {"load.sh", "accounts.py"})
      fs::permissions(m_folder + "/" + file, fs::perms(0755));
  }

  // The only collection of the authority, once there is one.
  json await(std::string const& authority)
  {
    json found;
    EXPECT_TRUE(eventually(
        [&]
        {
          Outcome const outcome = run({"items", "--authority", authority, "--json"});
          found = json::parse(outcome.output, nullptr, false);
          return outcome.exitCode == 0 && found.is_array() && found.size() == 1;
        }))
        << m_service.log();
    return found.is_array() && found.size() == 1 ? found[0] : json();
  }

  std::string const m_folder = m_service / "explorers.d";
};

TEST_F(ScriptsTest, factsOfScriptsAreReadLikeAllOthers)
{
  json const load = await("load");
  EXPECT_EQ(load["subject"], LiveService::NAME);
  EXPECT_EQ(load["typeName"], "client");
  EXPECT_EQ(load["items"][0]["name"], LiveService::NAME);
  EXPECT_TRUE(load["items"][0]["facts"]["load1"].is_number()) << load;
  EXPECT_TRUE(load["items"][0]["facts"]["processes"].is_number()) << load;
  EXPECT_EQ(load["schema"]["load1"]["description"],
            "Processes that run or wait, on average over a minute");

  json const accounts = await("accounts");
  auto const root = std::find_if(accounts["items"].begin(), accounts["items"].end(),
                                 [](json const& item) { return item["name"] == "root"; });
  ASSERT_NE(root, accounts["items"].end());
  EXPECT_EQ((*root)["facts"],
            json({{"uid", 0}, {"home.path", "/root"}, {"home.exists", true}, {"login", true}}));
  EXPECT_EQ(run({"items", "--authority", "accounts", "--where", "uid = 0 and home.exists = true",
                 "--count"})
                .output,
            "1\n");
  json const filters = runJson({"filters", LiveService::NAME, "load"});
  EXPECT_EQ(filters[0],
            json({{"name", "load1"},
                  {"type", "number"},
                  {"unit", ""},
                  {"description", "Processes that run or wait, on average over a minute"}}));
}

TEST_F(ScriptsTest, aScriptThatHangsDelaysNeitherOthersNorTheStop)
{
  writeShellScript(m_folder + "/hangs", "trap '' TERM; echo $$ >" + (m_service / "pid") +
                                            "; while :; do sleep 600; done");
  ASSERT_TRUE(eventually([this] { return readText(m_service / "pid").ends_with("\n"); }))
      << m_service.log();
  writeShellScript(m_folder + "/late", "echo a=1"); // noticed while the other hangs
  await("late");
  auto const begin = std::chrono::steady_clock::now();
  m_service.process().sendSignal(SIGTERM);
  ASSERT_TRUE(m_service.process().wait());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(kill(std::stoi(readText(m_service / "pid")), 0), -1);
}

TEST_F(ScriptsTest, noRunOutlivesAServiceThatIsKilled)
{
  writeShellScript(m_folder + "/hangs", "setsid sh -c 'echo $$ >" + (m_service / "pid") +
                                            "; trap \"\" TERM; while :; do sleep 600; done'");
  ASSERT_TRUE(eventually([this] { return readText(m_service / "pid").ends_with("\n"); }))
      << m_service.log();
  pid_t const pid = std::stoi(readText(m_service / "pid"));
  m_service.process().sendSignal(SIGKILL);
  EXPECT_TRUE(eventually([pid] { return kill(pid, 0) != 0; }, std::chrono::seconds(10)));
  ASSERT_TRUE(m_service.start()); // for the end of the test
}

// A client whose name begins so announces itself, and reports, without a delay.
TEST(ClientScriptsTest, theFactsOfAClientsScriptAreKnownToItsMasterWithinAMinute)
{
  LiveService master;
  LiveService client(LiveService::WITH_EXPLORERS);
  std::string const hosts = "SERVER = first\nHOST_ADDRESS.first = 127.0.0.34\nHOST_ADDRESS.4a = "
                            "127.0.0.35\nORB_PORT.DiscoveryService = " +
                            std::to_string(client.port()) + '\n';
  writeText(master / "etc/tq.conf", hosts + "CLIENT_NAME = first\nORB_BIND = 127.0.0.34\n");
  writeText(client / "etc/tq.conf", hosts + "CLIENT_NAME = 4a\nORB_BIND = 127.0.0.35\n");
  ASSERT_TRUE(master.start()) << master.log();
  ASSERT_TRUE(client.start()) << client.log();
  ASSERT_TRUE(client.process().awaitError("Successfully registered explorers with master"))
      << client.log();

  auto const begin = std::chrono::steady_clock::now();
  std::filesystem::create_directory(client / "explorers.d");
  std::filesystem::permissions(client / "explorers.d", std::filesystem::perms(0755));
  writeShellScript(client / "explorers.d/rack.sh", R"(echo "row=7"; echo "of=$TESSARINE_SUBJECT")");
  json items;
  EXPECT_TRUE(eventually(
      [&]
      {
        Outcome const outcome = master.tqdiscoctl({"items", "-a", "rack", "--json"});
        items = json::parse(outcome.output, nullptr, false);
        return outcome.exitCode == 0 && items.size() == 1;
      },
      std::chrono::seconds(60)))
      << client.log();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
  ASSERT_EQ(items.size(), 1U);
  EXPECT_EQ(items[0]["subject"], "4a");
  EXPECT_EQ(items[0]["items"][0]["facts"], json({{"row", 7}, {"of", "4a"}}));
  EXPECT_EQ(client.stop(), 0) << client.log();
  EXPECT_EQ(master.stop(), 0) << master.log();
}

} // namespace
