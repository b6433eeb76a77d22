// tqdiscoctl, the master's service and a client's.

#include "tests/support/LiveService.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

std::vector<std::string> subjectsListed(json const& records)
{
  std::vector<std::string> subjects;
  for (auto const& record : records)
    subjects.push_back(record["subject"]);
  return subjects;
}

// A client beside the master, on a loopback address of its own. Names that
// begin like this one wait hardly at all before they announce themselves.
class TqdiscoctlTwoHostsTest : public testing::Test
{
protected:
  static constexpr char const* CLIENT = "4a";

  explicit TqdiscoctlTwoHostsTest(std::string master = LiveService::NAME)
      : m_name(std::move(master))
  {
  }

  void SetUp() override
  {
    std::string const addresses = "HOST_ADDRESS." + std::string(CLIENT) + " = 127.0.0.2\n";
    std::string const& master = m_name;
    // What is said again takes the place of what LiveService says.
    m_master.configure(addresses + (master == LiveService::NAME
                                        ? ""
                                        : "SERVER = " + master + "\nCLIENT_NAME = " + master +
                                              "\nHOST_ADDRESS." + master + " = 127.0.0.1\n"));
    ASSERT_TRUE(m_master.start()) << m_master.log();

    namespace fs = std::filesystem;
    fs::create_directories(m_root / "etc");
    fs::create_directories(m_root / "lib/plugins");
    for (auto const& folder : {m_root.path(), m_root / "lib", m_root / "lib/plugins"})
      fs::permissions(folder, fs::perms(0755));
    fs::copy_file(TQ_LIB_DIR "/libtqexplorer.so", m_root / "lib/libtqexplorer.so");
    fs::permissions(m_root / "lib/libtqexplorer.so", fs::perms(0755));
    writeText(m_root / "etc/tq.conf",
              "SERVER = " + master + "\nCLIENT_NAME = " + CLIENT + "\nHOST_ADDRESS." + master +
                  " = 127.0.0.1\n" + addresses + "ORB_BIND = 127.0.0.2\n" +
                  "ORB_PORT.DiscoveryService = " + std::to_string(m_master.port()) + "\n");
    m_client = std::make_unique<Process>(TQ_BIN_DIR "/tqdisco", Words{},
                                         Process::Environment{{"TESSARINE_ROOT", m_root.path()}});
    ASSERT_TRUE(eventually(
        [&]
        {
          return run({"show", CLIENT, "service"}).exitCode == 0 &&
                 run({"show", master, "service"}).exitCode == 0;
        },
        std::chrono::seconds(90)))
        << m_client->errors();
  }

  void TearDown() override
  {
    m_client->sendSignal(SIGTERM);
    EXPECT_TRUE(m_client->wait());
    EXPECT_EQ(m_master.stop(), 0) << m_master.log();
  }

  Outcome run(Words const& words) const { return m_master.tqdiscoctl(words); }

  std::string const m_name; // the master's
  LiveService m_master{LiveService::WITH_EXPLORERS};
  TempDir m_root;
  std::unique_ptr<Process> m_client;
};

// A fleet of clients must not ask the master for all of its list every minute.
TEST_F(TqdiscoctlTwoHostsTest, metricsOfAClientAreThoseOfItsOwnService)
{
  Outcome const own =
      runProgram(TQ_BIN_DIR "/tqdiscoctl", {"metrics"}, {{"TESSARINE_ROOT", m_root.path()}});
  EXPECT_EQ(own.exitCode, 0) << own.errors;
  EXPECT_THAT(own.output,
              AllOf(HasSubstr("\ntqdisco_up 1\n"),
                    HasSubstr("tqdisco_explorer_failing{explorer=\"host\""),
                    HasSubstr("tqdisco_start_time_seconds"), Not(HasSubstr("tqdisco_hosts")),
                    Not(HasSubstr("tqdisco_discoveries"))));
  Outcome const all = run({"metrics"});
  EXPECT_EQ(all.exitCode, 0) << all.errors;
  EXPECT_THAT(all.output,
              AllOf(HasSubstr("\ntqdisco_hosts 2\n"), HasSubstr("\ntqdisco_hosts_silent 0\n"),
                    HasSubstr("type=\"client\"} 2\n")));
  EXPECT_THAT(run({"metrics", "--host", CLIENT}).output, HasSubstr("tqdisco_start_time_seconds"));
}

TEST_F(TqdiscoctlTwoHostsTest, bothHostsAreThereAndEachHasItsRole)
{
  json const status = json::parse(run({"status", "--json"}).output);
  ASSERT_EQ(status["services"].size(), 2U);
  EXPECT_EQ(status["services"][0]["subject"], CLIENT);
  EXPECT_EQ(status["services"][0]["service"]["facts"]["Role"], "client");
  EXPECT_EQ(status["services"][1]["service"]["facts"]["Role"], "master");
  json const hosts = json::parse(run({"hosts", "--json"}).output);
  EXPECT_EQ(hosts.size(), 2U);
}

// The master answers for one of them only; the other is asked itself.
TEST_F(TqdiscoctlTwoHostsTest, volumesOfTheClientAreReadFromIt)
{
  Outcome const outcome = run({"show", CLIENT, "volume", "--json"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors << m_master.log();
  json const collection = json::parse(outcome.output);
  EXPECT_EQ(collection["complete"], true);
  EXPECT_EQ(collection["subject"], CLIENT);
  EXPECT_THAT(m_master.log(), HasSubstr("Fount too many matching discoveries for subject 4a"));

  // One record for each host, whatever the service gives beyond the match.
  for (char const* host : {CLIENT, LiveService::NAME})
    EXPECT_EQ(subjectsListed(json::parse(run({"query", "--subject", host, "--authority", "volume",
                                              "--type", "client", "--json"})
                                             .output)),
              std::vector<std::string>{host});
}

// Another host's collections stand behind the master's own, which the service
// does not give out then.
class TqdiscoctlBehindMasterTest : public TqdiscoctlTwoHostsTest
{
protected:
  TqdiscoctlBehindMasterTest() : TqdiscoctlTwoHostsTest("1m") {}
};

TEST_F(TqdiscoctlBehindMasterTest, aListOfEveryHostsVolumesIsWhole)
{
  for (Words const& more : {Words{}, Words{"--where", "kind = disk or kind != disk"}})
  {
    Words words{"items", "--authority", "volume", "--json"};
    words.insert(words.end(), more.begin(), more.end());
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors << m_master.log();
    EXPECT_EQ(subjectsListed(json::parse(outcome.output)),
              (std::vector<std::string>{m_name, CLIENT}));
  }
  EXPECT_THAT(m_master.log(), HasSubstr("Fount too many matching discoveries"));
  EXPECT_EQ(run({"show", m_name, "volume"}).exitCode, 0);
}

// The master has the client's announcement from its database then, and not from
// the client.
TEST_F(TqdiscoctlTwoHostsTest, volumesOfTheClientAreReadAfterARestartOfTheMaster)
{
  ASSERT_EQ(m_master.stop(), 0) << m_master.log();
  ASSERT_TRUE(m_master.start()) << m_master.log();

  Words const volumes{"--subject", CLIENT, "--authority", "volume", "--json"};
  auto const query = [&](Words words)
  {
    words.insert(words.begin(), "query");
    words.insert(words.end(), volumes.begin(), volumes.end());
    return json::parse(run(words).output);
  };
  json const records = query({"--type", "client"});
  ASSERT_EQ(records.size(), 1U) << query({});
  EXPECT_EQ(records[0]["onDemand"], true);
  EXPECT_EQ(records[0]["typeName"], "remotepull");
  EXPECT_EQ(query({"--type", "server"}), json::array());

  json const collection = json::parse(run({"show", CLIENT, "volume", "--json"}).output);
  EXPECT_EQ(collection["complete"], true);
  EXPECT_EQ(collection["subject"], CLIENT);
  Outcome const payload = run({"show", CLIENT, "volume", "--raw"});
  EXPECT_EQ(payload.exitCode, 0) << payload.errors << m_master.log();
  EXPECT_THAT(payload.output, HasSubstr("DiscoveredItems"));
  EXPECT_THAT(payload.output, Not(HasSubstr("SourceHost")));

  json const announced = query({"--type", "remotepull"});
  ASSERT_EQ(announced.size(), 1U);
  EXPECT_EQ(announced[0]["onDemand"], false);
  EXPECT_EQ(announced[0]["discoveryTime"], nullptr);
  EXPECT_THAT(run({"show", CLIENT, "volume", "--type", "remotepull", "--raw"}).output,
              HasSubstr("<SourceHost>4a</SourceHost>"));
  EXPECT_THAT(run({"show", CLIENT, "volume", "--type", "remotepull"}).errors +
                  run({"show", CLIENT, "volume", "--type", "remotepull"}).output,
              AllOf(HasSubstr("announced to the master by its host"), Not(HasSubstr("- ago"))));

  // A host that cannot be asked is a failure, not an empty collection.
  m_client->sendSignal(SIGKILL);
  ASSERT_TRUE(m_client->wait());
  EXPECT_EQ(run({"show", CLIENT, "volume"}).exitCode, 1);
}

// The host explorer runs once an hour by itself, that of file systems every five
// minutes.
TEST_F(TqdiscoctlTwoHostsTest, explorersThatAreNotDueRunWhenTheyAreToRunNow)
{
  auto const foundAt = [this](std::string const& authority)
  {
    json const records = json::parse(
        run({"query", "--subject", CLIENT, "--authority", authority, "--type", "client", "--json"})
            .output,
        nullptr, false);
    return records.size() == 1 ? std::string(records[0]["discoveryTime"]) : std::string();
  };
  ASSERT_TRUE(eventually([&] { return !foundAt("host").empty(); }));
  std::string const host = foundAt("host");
  std::string const filesystem = foundAt("filesystem");

  Outcome const one = run({"push", "--now", "--authority", "host", "--host", "127.0.0.2"});
  EXPECT_EQ(one.exitCode, 0) << one.errors;
  EXPECT_THAT(one.output, HasSubstr("those of host become due"));
  EXPECT_TRUE(eventually([&] { return foundAt("host") != host; })) << m_client->errors();
  EXPECT_EQ(foundAt("filesystem"), filesystem);

  Outcome const all = run({"push", "--now", "--all"});
  EXPECT_EQ(all.exitCode, 0) << all.errors;
  EXPECT_TRUE(eventually([&] { return foundAt("filesystem") != filesystem; }))
      << m_client->errors();
  EXPECT_EQ(run({"push", "--authority", "host"}).exitCode, 2);
}

TEST_F(TqdiscoctlTwoHostsTest, anotherHostsServicePushesAndStops)
{
  EXPECT_EQ(run({"push", "--host", CLIENT}).exitCode, 0);
  EXPECT_EQ(run({"stop", "--host", CLIENT}).exitCode, 0);
  ASSERT_TRUE(m_client->wait());
  EXPECT_EQ(m_client->exitCode(), 0) << m_client->errors();
  EXPECT_EQ(run({"stop", "--host", CLIENT}).exitCode, 5);
  EXPECT_EQ(run({"query"}).exitCode, 0) << "the master goes on";
}

// What the host's service told of itself is taken away rather than waited for.
TEST_F(TqdiscoctlTwoHostsTest, aHostThatTellsNothingOfItselfAnyMoreIsSilent)
{
  EXPECT_EQ(json::parse(run({"status", "--json"}).output)["silent"], json::array());
  m_client->sendSignal(SIGKILL);
  ASSERT_TRUE(m_client->wait());
  for (char const* const suffix : {"xml", "dat"})
    ASSERT_TRUE(
        std::filesystem::remove(m_master.database() + "/2 service " + CLIENT + "." + suffix));

  Outcome const text = run({"status"});
  EXPECT_EQ(text.exitCode, 4) << text.output;
  EXPECT_THAT(text.output, testing::ContainsRegex("\n4a +- +- +silent +- +- +- +-\n"));
  EXPECT_THAT(text.errors, HasSubstr("1 host is silent"));
  json status = json::parse(run({"status", "--json"}).output);
  EXPECT_EQ(status["services"].size(), 1U);
  ASSERT_EQ(status["silent"].size(), 1U);
  EXPECT_EQ(status["silent"][0]["host"], CLIENT);
  EXPECT_TRUE(status["silent"][0].contains("latestTime"));

  // Explorers tell of hosts; what is put in may be about anything.
  writeText(m_root / "payload", "<DiscoveredItems/>");
  ASSERT_EQ(run({"put", "rack7", "disks", m_root / "payload"}).exitCode, 0);
  EXPECT_EQ(json::parse(run({"status", "--json"}).output)["silent"], status["silent"]);
}

// It passes queries on, and so looks like the master until something is read.
TEST_F(TqdiscoctlTwoHostsTest, aClientNamedAsTheMasterIsToldApart)
{
  Outcome const list = run({"--master", CLIENT, "query"});
  EXPECT_EQ(list.exitCode, 0) << list.errors;
  EXPECT_THAT(list.errors,
              AllOf(HasSubstr("is not the master's"), HasSubstr("\"4a\" is a client")));
  Outcome const shown = run({"--master", CLIENT, "show", LiveService::NAME, "service"});
  EXPECT_EQ(shown.exitCode, 1);
  EXPECT_THAT(shown.errors, HasSubstr("is not the master's"));

  for (char const* const master : {LiveService::NAME, "127.0.0.1"})
  {
    Outcome const good = run({"--master", master, "show", CLIENT, "service"});
    EXPECT_EQ(good.exitCode, 0) << good.errors;
    EXPECT_THAT(good.errors, testing::IsEmpty());
  }
}

} // namespace
