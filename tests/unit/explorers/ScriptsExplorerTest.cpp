// Scripts as explorers: which are run, when, and what is stored of them.

#include "discovery/ExplorerRuns.h"
#include "discovery/RefreshRequests.h"
#include "discovery/ExplorerPayload.h"
#include "explorers/ScriptsExplorer.h"
#include "ozf/base/MetadataConverter.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Scripts.h"
#include "tests/support/Service.h"
#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gmock/gmock.h>

#include <atomic>
#include <sys/stat.h>

using namespace ExplorerTesting;
using Explorers::ScriptsExplorer;
using testing::HasSubstr;
using tqtest::eventually;
using tqtest::writeShellScript;

namespace
{

class ScriptsExplorerTest : public testing::Test
{
protected:
  ScriptsExplorerTest()
  {
    m_explorer.reset(new ScriptsExplorer(
        m_folder.path(),
        [](std::string const& name)
        { return std::string(name == "filesystem" ? "the explorer filesystem" : ""); },
        [this] { return ScriptsExplorer::Clock::time_point(std::chrono::seconds(m_now)); }));
  }

  void pass() { m_last = explore(*m_explorer, AT_TQUCLIENT, &m_store, "client7"); }

  // Lets passes go by until as many runs were told of.
  bool awaitRuns(std::size_t count)
  {
    return eventually(
        [&]
        {
          pass();
          return runs() >= count;
        },
        std::chrono::seconds(30));
  }

  // Of a run that failed the line says that what it found before stays.
  std::size_t runs() const { return lines(" found "); }

  // How many lines of the log have that part.
  std::size_t lines(std::string const& part) const
  {
    auto const all = m_log.lines();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(),
        [&part](auto const& line) { return line.text.find(part) != std::string::npos; }));
  }

  std::string stored(std::string const& authority, AuthorityType type = AT_TQUCLIENT) const
  {
    for (Stored const& record : m_store.records())
      if (record.authority == authority && record.type == type)
        return record.payload;
    return {};
  }

  // What is known of the runs of that script; null when it is not listed.
  std::shared_ptr<ExplorerRecord> record(std::string const& authority) const
  {
    for (auto const& each : getExplorerRuns().all())
      if (each->description().kind == ExplorerRecord::SCRIPT &&
          each->description().authority == authority)
        return each;
    return nullptr;
  }

  std::string operator/(std::string const& name) const { return m_folder / name; }

  TempDir m_folder;
  Store m_store;
  LogCapture m_log;
  std::atomic<long> m_now{1000};
  AutoDereference<ScriptsExplorer> m_explorer;
  DiscoveryResult m_last{};
};

TEST_F(ScriptsExplorerTest, whatAScriptPrintsIsStoredUnderItsName)
{
  writeShellScript(*this / "disks.sh",
                   "echo size=7; echo state=good; echo subject=$TESSARINE_SUBJECT");
  writeText(*this / "disks.conf",
            "KIND.size = size\nUNIT.size = bytes\nTEXT.size = How large\nKIND.later = time\n");
  writeShellScript(*this / "pools",
                   "echo '[{\"name\": \"a\", \"up\": true}, {\"name\": \"b\", \"up\": 1}]'");
  ASSERT_TRUE(awaitRuns(2)) << m_log.text();
  EXPECT_EQ(m_last.discStatus, DS_SUCCESS);

  Document const disks(stored("disks"));
  ASSERT_EQ(disks.items.size(), 1U);
  EXPECT_EQ(disks.items[0].name, "client7");
  EXPECT_EQ(disks.items[0].explorer, "disks");
  EXPECT_EQ(disks.items[0].facts.at("size"), "7");
  EXPECT_EQ(disks.items[0].facts.at("subject"), "client7");
  Document const filters(stored("disks", AT_EXTSRC));
  ASSERT_EQ(filters.attributeList.size(), 4U);
  EXPECT_EQ(
      filters.attributeList[1],
      (std::map<std::string, std::string>{
          {"Name", "size"}, {"Type", "size"}, {"Unit", "bytes"}, {"Description", "How large"}}));
  EXPECT_EQ(filters.attributeList[2].at("Name"), "state");

  Document const pools(stored("pools"));
  ASSERT_EQ(pools.items.size(), 2U);
  EXPECT_EQ(pools.find("b")->facts.at("up"), "1");
  EXPECT_EQ(Document(stored("pools", AT_EXTSRC)).attributeList[0].at("Type"), "text");
}

TEST_F(ScriptsExplorerTest, aRunThatFailsKeepsWhatWasFoundAndTellsWhy)
{
  writeShellScript(*this / "disks", "echo size=1");
  ASSERT_TRUE(awaitRuns(1));
  std::string const before = stored("disks");
  for (auto const& [commands, reason] : std::vector<std::pair<std::string, std::string>>{
           {"echo size=2; echo no disk >&2; exit 1", "it exited with 1; standard error: no disk"},
           {"true", "nothing was printed"},
           {"head -c 500 /dev/urandom; printf '\\377'", "a byte that is not UTF-8"},
           {"printf 'size=\\303'", "line 1, column 6: a byte that is not UTF-8"},
           {"echo hello", "line 1: there is no '='"},
           {"echo '{\"size\": 2'", "no valid JSON"},
           {"echo size=2; echo more >>\"$0\"", "was changed or replaced meanwhile"}})
  {
    writeShellScript(*this / "disks", commands);
    // A run that had begun by then fails in its own way.
    ASSERT_TRUE(eventually(
        [&, &why = reason]
        {
          pass();
          return lines(why) > 0;
        },
        std::chrono::seconds(30)))
        << commands << m_log.text();
    EXPECT_EQ(stored("disks"), before) << commands;
  }
}

TEST_F(ScriptsExplorerTest, aValueThatIsNotOfItsKindIsRefused)
{
  writeShellScript(*this / "disks", "echo size=much");
  writeText(*this / "disks.conf", "KIND.size = size\n");
  ASSERT_TRUE(awaitRuns(1));
  EXPECT_THAT(m_log.text(), HasSubstr("item 1: the fact size is no number"));
  EXPECT_EQ(stored("disks"), "");
}

TEST_F(ScriptsExplorerTest, scriptsOfOneAuthorityAreRefusedWithALineThatNamesBoth)
{
  writeShellScript(*this / "disks.sh", "echo size=1");
  writeShellScript(*this / "Disks.py", "echo size=1");
  writeShellScript(*this / "filesystem.sh", "echo size=1");
  writeShellScript(*this / "good", "echo size=1");
  ASSERT_TRUE(awaitRuns(1));
  pass();
  EXPECT_THAT(m_log.text(), HasSubstr((*this / "disks.sh") + " has the authority disks like " +
                                      (*this / "Disks.py")));
  EXPECT_THAT(m_log.text(), HasSubstr((*this / "Disks.py") + " has the authority Disks like " +
                                      (*this / "disks.sh")));
  EXPECT_THAT(m_log.text(),
              HasSubstr((*this / "filesystem.sh") +
                        " has the authority filesystem like the explorer filesystem"));
  EXPECT_EQ(lines("A script is not used"), 3U); // each once
  EXPECT_EQ(m_store.records().size(), 2U);
  std::filesystem::remove(*this / "Disks.py");
  ASSERT_TRUE(awaitRuns(2));
  EXPECT_NE(stored("disks"), "");
}

TEST_F(ScriptsExplorerTest, whatMayNotBeRunIsNamedAndRunOnceItMay)
{
  std::string const path = writeShellScript(*this / "disks", "echo size=1");
  chmod(path.c_str(), 0777);
  pass();
  pass();
  EXPECT_EQ(lines(path + " may be written to by others"), 1U);
  chmod(path.c_str(), 0755);
  chmod(m_folder.path().c_str(), 0777);
  pass();
  EXPECT_THAT(m_log.text(), HasSubstr(m_folder.path() + " may be written to by others"));
  EXPECT_EQ(runs(), 0U);
  chmod(m_folder.path().c_str(), 0755);
  writeText(*this / "disks.conf", "INTERVAL = never\n");
  pass();
  EXPECT_THAT(m_log.text(), HasSubstr("disks.conf:1: \"never\" is not accepted"));
  writeText(*this / "disks.conf", "INTERVAL = 1h\n");
  EXPECT_TRUE(awaitRuns(1));
}

TEST_F(ScriptsExplorerTest, scriptsRunAgainWhenTheIntervalHasPassedOrSomebodyAsks)
{
  writeShellScript(*this / "disks", "echo size=1");
  writeText(*this / "disks.conf", "INTERVAL = 100\n");
  ASSERT_TRUE(awaitRuns(1));
  auto const due = [this] { return lines("disks is due"); };
  m_now += 49; // at least half of it passes
  pass();
  EXPECT_EQ(due(), 1U);
  m_now += 51;
  ASSERT_TRUE(awaitRuns(2));
  EXPECT_EQ(due(), 2U);
  m_now += 49; // now the whole of it passes
  m_explorer->setLastExplorationTime(OzfObjTime::now());
  pass();
  EXPECT_EQ(due(), 2U);
  m_explorer->setLastExplorationTime(OzfObjTime());
  ASSERT_TRUE(awaitRuns(3));
}

TEST_F(ScriptsExplorerTest, oneScriptCanBeAskedForByItsAuthority)
{
  writeShellScript(*this / "disks", "echo size=1");
  writeShellScript(*this / "pools", "echo size=1");
  ASSERT_TRUE(awaitRuns(2));
  AutoDereference<ExplorerWrapper> const entry(new ExplorerWrapper(
      m_explorer.get(), 10, new Subject("client7"), new Authority("scripts", AT_TQUCLIENT)));
  ExplorerSet explorers;
  explorers.insert(entry);
  OzfHostname::overrideLocal("client7");
  ASSERT_EQ(DS_SUCCESS,
            Explorers::store(m_store, DQ_DISCOVERY_DATA, Subject("client7"),
                             Authority("refresh.DISKS", AT_EXTSRC), attributes(), "<x/>", "test"));
  RefreshRequests requests;
  requests.noteCall();
  requests.obey(
      []
      {
        auto* const walk = getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA);
        walk->setAuthority(REFRESH_PATTERN, AT_EXTSRC);
        walk->setSubject("*");
        return walk;
      },
      explorers);
  OzfHostname::overrideLocal("");
  ASSERT_TRUE(awaitRuns(3)) << m_log.text();
  EXPECT_EQ(lines("disks is due"), 2U);
  EXPECT_EQ(lines("pools is due"), 1U);
}

TEST_F(ScriptsExplorerTest, aNewFileRunsSoonAndARemovedOneNotAgain)
{
  writeShellScript(*this / "disks", "echo size=1");
  ASSERT_TRUE(awaitRuns(1));
  writeShellScript(*this / "disks", "echo size=22");
  writeShellScript(*this / "pools", "echo size=3");
  ASSERT_TRUE(awaitRuns(3));
  EXPECT_THAT(stored("disks"), HasSubstr("<size>22</size>"));
  std::filesystem::remove(*this / "disks");
  m_now += 1000;
  ASSERT_TRUE(awaitRuns(4));
  EXPECT_THAT(stored("disks"), HasSubstr("<size>22</size>")); // until it expires
}

TEST_F(ScriptsExplorerTest, everyScriptIsToldOfWithItsFileAndWhatCameOfItsRun)
{
  std::string const good = writeShellScript(*this / "disks.sh", "echo size=1");
  writeText(*this / "disks.conf", "PRIORITY = 33\n");
  writeShellScript(*this / "pools", "exit 3");
  writeShellScript(*this / "filesystem", "echo size=1");
  ASSERT_TRUE(awaitRuns(2)) << m_log.text();
  ASSERT_TRUE(record("disks"));
  EXPECT_EQ(record("disks")->description().origin, good);
  EXPECT_EQ(record("disks")->description().subject, "client7");
  EXPECT_EQ(record("disks")->description().priority, 33U);
  auto const disks = record("disks")->now();
  EXPECT_EQ(disks.result, "success");
  EXPECT_TRUE(disks.well);
  EXPECT_GT(disks.took->count(), 0);
  EXPECT_GT(*disks.memory, 0);
  EXPECT_FALSE(disks.lastRun.isZero());
  EXPECT_EQ(disks.lastSuccess, disks.lastRun);
  EXPECT_EQ(disks.runs, 1U);
  auto const pools = record("pools")->now();
  EXPECT_EQ(pools.result, "it exited with 3");
  EXPECT_FALSE(pools.well);
  EXPECT_EQ(pools.failures, 1U);
  EXPECT_TRUE(pools.lastSuccess.isZero());
  auto const refused = record("filesystem")->now();
  EXPECT_THAT(refused.result, HasSubstr("not used: " + (*this / "filesystem") +
                                        " has the authority filesystem like"));
  EXPECT_EQ(refused.runs, 0U);

  std::filesystem::remove(good);
  std::filesystem::remove(*this / "disks.conf");
  pass();
  EXPECT_FALSE(record("disks"));
}

TEST_F(ScriptsExplorerTest, whatCannotBeStoredIsToldOfAsAFailedRun)
{
  writeShellScript(*this / "disks", "echo size=1");
  std::string const database = getDiscoveryDBDatabase()->getDirectory();
  std::filesystem::rename(database, database + ".away");
  EXPECT_TRUE(awaitRuns(1)) << m_log.text();
  std::filesystem::rename(database + ".away", database);
  ASSERT_TRUE(record("disks"));
  EXPECT_EQ(record("disks")->now().result, "opening failed");
  EXPECT_EQ(record("disks")->now().failures, 1U);
  EXPECT_TRUE(record("disks")->now().lastSuccess.isZero());

  // Not with each pass, but without another run.
  m_now += 59;
  pass();
  EXPECT_EQ(m_last.discStatus, DS_COM_ERROR);
  EXPECT_EQ(stored("disks"), "");
  ++m_now;
  pass();
  EXPECT_EQ(m_last.discStatus, DS_SUCCESS);
  EXPECT_THAT(stored("disks"), HasSubstr("<size>1</size>"));
  EXPECT_EQ(record("disks")->now().result, "success");
  EXPECT_EQ(lines("disks is due"), 1U);
}

TEST_F(ScriptsExplorerTest, whatARunFoundIsDroppedWhenItsFileIsAnotherByThen)
{
  writeShellScript(*this / "disks", "echo size=1");
  pass();
  ASSERT_TRUE(eventually([this] { return record("disks")->now().runs == 1; }));
  writeShellScript(*this / "disks", "echo size=22");
  ASSERT_TRUE(awaitRuns(1));
  EXPECT_THAT(stored("disks"), HasSubstr("<size>22</size>"));
  EXPECT_EQ(runs(), 1U) << m_log.text(); // as far as anybody is told
}

TEST_F(ScriptsExplorerTest, runsAreSpread)
{
  for (int i = 0; i < 9; ++i)
  {
    std::string const name = "s" + std::to_string(i);
    writeShellScript(*this / name, "echo size=1");
    writeText(*this / (name + ".conf"), "INTERVAL = 100\n");
  }
  auto const due = [this] { return lines(" is due"); };
  for (std::size_t const begun : {4U, 8U, 9U})
  {
    pass();
    EXPECT_EQ(due(), begun);
    ++m_now;
  }
  ASSERT_TRUE(awaitRuns(9)) << m_log.text();
  m_now += 75;
  pass();
  EXPECT_GT(due(), 9U);
  EXPECT_LT(due(), 18U);
  m_now += 25;
  ASSERT_TRUE(awaitRuns(18)) << m_log.text();
}

TEST_F(ScriptsExplorerTest, atMostFourRunAtOnceAndAHangingOneDelaysNoOther)
{
  for (int i = 0; i < 200; ++i)
    writeShellScript(*this / ("s" + std::to_string(i)), "for i in 1 2 3 4 5; do mkdir '" +
                                                            (*this / "slot") +
                                                            "'$i 2>/dev/null && break; "
                                                            "done; echo slot=$i; rmdir '" +
                                                            (*this / "slot") + "'$i");
  writeShellScript(*this / "hangs",
                   "trap '' TERM; echo $$ >" + (*this / "pid") + "; while :; do sleep 600; done");
  for (int i = 0; i < 60; ++i, ++m_now)
    pass();
  ASSERT_TRUE(awaitRuns(200)) << runs();
  std::size_t found = 0;
  for (Stored const& record : m_store.records())
  {
    found += record.type == AT_TQUCLIENT ? 1U : 0U;
    EXPECT_EQ(record.payload.find("<slot>5"), std::string::npos) << record.authority;
  }
  EXPECT_EQ(found, 200U);
  // The stop does not wait for it, and leaves nothing.
  auto const begin = std::chrono::steady_clock::now();
  AutoDereference<OZFRefCounted> context;
  m_explorer->stopExploration(Authority("scripts", AT_TQUCLIENT), Subject("client7"), context);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  EXPECT_NE(kill(std::stoi(readText(*this / "pid")), 0), 0);
}

TEST_F(ScriptsExplorerTest, prioritiesAndExpiriesAreThoseOfTheSidecar)
{
  writeShellScript(*this / "disks", "echo size=1");
  writeText(*this / "disks.conf", "PRIORITY = 33\nEXPIRY = 1h\n");
  ASSERT_TRUE(awaitRuns(1));
  // The discovery and its filter data have both.
  std::string metadata;
  for (auto const& entry :
       std::filesystem::directory_iterator(getDiscoveryDBDatabase()->getDirectory()))
    if (entry.path().extension() == ".xml")
      metadata = readText(entry.path());
  EXPECT_THAT(metadata, HasSubstr("<Priority>33</Priority>"));
  auto const timeIn = [&metadata](std::string const& element)
  {
    auto const begin = metadata.find("<" + element + ">") + element.size() + 2;
    OzfObjTime time;
    EXPECT_TRUE(MetadataConverter::convert(
        metadata.substr(begin, metadata.find('<', begin) - begin), time, element == "ExpiresTime"))
        << metadata;
    return time.seconds();
  };
  EXPECT_NEAR(static_cast<double>(timeIn("ExpiresTime") - timeIn("DiscoveryTime")), 3600, 10);
}

} // namespace
