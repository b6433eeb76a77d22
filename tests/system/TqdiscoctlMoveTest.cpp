// Which master a host belongs to, and how it goes from one to another.

#include "tests/support/Masters.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <set>
#include <sstream>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using ListedWords = std::vector<std::string>;

// The programs in the language that stand in a page.
std::string programIn(std::string const& page)
{
  std::string const begin = "```python\n";
  auto const at = page.find(begin) + begin.size();
  return page.substr(at, page.find("```", at) - at);
}

TEST(TqdiscoctlWhichMasterTest, itSaysWhatTheProgramInTheManualComputes)
{
  TempDir const root;
  ListedWords hosts;
  for (int i = 0; i < 200; ++i)
    hosts.push_back("Host" + std::to_string(i) + (i % 2 == 0 ? ".Example.com" : ".example.com."));
  hosts.insert(hosts.end(), {"192.0.2.7", "2001:db8::7",
                             "gr\xc3\xb6\xc3\x9f"
                             "e",
                             "x"});
  std::string const masters = "backup1.example.com,BACKUP2.example.com.,b3";
  ListedWords words{"which-master", "--masters", masters};
  words.insert(words.end(), hosts.begin(), hosts.end());
  Outcome const told =
      runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", root.path()}});
  ASSERT_EQ(told.exitCode, 0) << told.errors;

  ListedWords program{"-c",
                      programIn(readText(TQ_SOURCE_DIR "/docs/masters.md")) +
                          "\nimport sys\nfor host in sys.argv[2:]:\n"
                          "    print(host, master_of(host, sys.argv[1].split(',')))\n",
                      masters};
  program.insert(program.end(), hosts.begin(), hosts.end());
  Outcome const computed = runProgram("/usr/bin/python3", program, {{"PYTHONIOENCODING", "utf-8"}});
  ASSERT_EQ(computed.exitCode, 0) << computed.errors;
  EXPECT_EQ(told.output, computed.output);
  std::set<std::string> chosen;
  std::istringstream lines(told.output);
  for (std::string host, master; lines >> host >> master;)
    chosen.insert(master);
  EXPECT_EQ(chosen.size(), 3U);
}

TEST(TqdiscoctlWhichMasterTest, theMastersComeFromTheConfigurationAndMistakesAreNamed)
{
  TempDir const root;
  auto const which = [&](ListedWords words)
  {
    words.insert(words.begin(), "which-master");
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", root.path()}});
  };
  Outcome const unknown = which({"web7"});
  EXPECT_EQ(unknown.exitCode, 2);
  EXPECT_THAT(unknown.errors, HasSubstr("there is no MASTERS in"));
  std::filesystem::create_directories(root / "etc");
  writeText(root / "etc/tq.conf", "MASTERS = only.example\n");
  EXPECT_EQ(which({"web7"}).output, "only.example\n");
  EXPECT_EQ(json::parse(which({"web7", "--json"}).output),
            (json{{{"host", "web7"}, {"master", "only.example"}}}));
  EXPECT_EQ(which({"web7", "--masters", "b:27511"}).output, "b\n");
  for (auto const& words : {ListedWords{"web7", "--masters", "a,"}, ListedWords{"we b"},
                            ListedWords{"web7:80"}, ListedWords{}})
    EXPECT_EQ(which(words).exitCode, 2);
}

// What a client finds holds for seconds here, so that the old master's copies go soon.
class TqdiscoctlMoveTest : public testing::Test
{
protected:
  static constexpr char const* CLIENT = "4a"; // announces itself at once

  TqdiscoctlMoveTest()
      : m_client(LiveService::WITH_EXPLORERS, CLIENT, "127.0.0.3", m_masters.first().port())
  {
  }

  void serve(std::string const& master)
  {
    std::string more = "SERVER = " + master + "\n" + TwoMasters::addresses();
    for (char const* const explorer : {"network", "software", "listener"})
      more += std::string("EXPLORER.") + explorer + " = no\n";
    for (char const* const explorer : {"host", "filesystem", "service", "volume"})
      more += std::string("EXPLORER_EXPIRY.") + explorer + " = 4s\n";
    m_client.configure(more);
  }

  std::set<std::string> authoritiesAt(std::string const& master)
  {
    Outcome const outcome = m_masters.run({"--master", master, "query", "-s", CLIENT, "--json"});
    std::set<std::string> authorities;
    for (auto const& record : json::parse(outcome.output, nullptr, false))
      if (record.is_object())
        authorities.insert(record["authority"]);
    return authorities;
  }

  TwoMasters m_masters;
  LiveService m_client;
};

TEST_F(TqdiscoctlMoveTest, nothingIsLostAndNoGhostIsLeft)
{
  for (LiveService* const master : {&m_masters.first(), &m_masters.second()})
    master->configure("HOST_ADDRESS.4a = 127.0.0.3\n");
  m_masters.configureTools("HOST_ADDRESS.4a = 127.0.0.3\n");
  ASSERT_TRUE(m_masters.start());
  serve("m1");
  ASSERT_TRUE(m_client.start()) << m_client.log();
  std::set<std::string> const all{"filesystem", "host", "service", "volume"};
  auto const hasAll = [&](char const* master)
  {
    auto const found = authoritiesAt(master);
    return std::includes(found.begin(), found.end(), all.begin(), all.end());
  };
  ASSERT_TRUE(eventually([&] { return hasAll("m1"); })) << m_client.log();
  EXPECT_THAT(authoritiesAt("m2"), IsEmpty());

  serve("m2");
  m_client.process().sendSignal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return authoritiesAt("m2").count("volume") == 1; }))
      << m_client.log();
  Outcome const push = m_masters.run({"--master", "m2", "push", "--host", CLIENT, "--now"});
  EXPECT_EQ(push.exitCode, 0) << push.errors;
  EXPECT_TRUE(eventually([&] { return hasAll("m2"); })) << m_client.log();

  // The old master's copies expire; what was announced to it does not.
  std::set<std::string> const announced{"volume"};
  EXPECT_TRUE(eventually([&] { return authoritiesAt("m1") == announced; }))
      << m_masters.first().log();
  Outcome const forgotten = m_masters.first().tqdiscoctl({"db", "forget", CLIENT, "--yes"});
  EXPECT_EQ(forgotten.exitCode, 0) << forgotten.errors;
  EXPECT_THAT(forgotten.output, HasSubstr("4 volume 4a.xml"));
  EXPECT_THAT(forgotten.errors, HasSubstr("forgets what was announced within seconds"));
  EXPECT_TRUE(eventually([&] { return authoritiesAt("m1").empty(); })) << m_masters.first().log();
  EXPECT_THAT(m_masters.first().log(),
              HasSubstr("Forgot the explorer of authority volume for subject 4a"));
  Outcome const again = m_masters.first().tqdiscoctl({"db", "forget", CLIENT, "--yes"});
  EXPECT_EQ(again.exitCode, 3);
  EXPECT_THAT(again.errors, HasSubstr("there is nothing of subject \"4a\""));

  Outcome const volumes = m_masters.runOnBoth({"show", CLIENT, "volume"});
  EXPECT_EQ(volumes.exitCode, 0) << volumes.errors;
  EXPECT_THAT(volumes.output, HasSubstr("Master     m2"));
  auto const hosts = m_masters.jsonOfBoth({"hosts", "-s", CLIENT});
  ASSERT_EQ(hosts.size(), 1U) << hosts;
  EXPECT_EQ(hosts[0]["master"], "m2");
  // Nor is one left behind a restart.
  ASSERT_EQ(m_masters.first().stop(), 0);
  ASSERT_TRUE(m_masters.first().start());
  EXPECT_THAT(authoritiesAt("m1"), IsEmpty());
  EXPECT_EQ(m_client.stop(), 0) << m_client.log();
}

} // namespace
