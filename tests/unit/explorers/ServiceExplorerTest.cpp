#include "explorers/ServiceExplorer.h"

#include "tests/support/ServiceFacts.h"
#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <set>
#include <stdexcept>

using namespace ExplorerTesting;
using Explorers::ServiceExplorer;
using Explorers::ServiceState;

namespace
{

using FactTexts = std::map<std::string, std::string>;

ServiceState sample()
{
  ServiceState state;
  state.master = true;
  state.version = "1.2";
  state.start = OzfObjTime(1767261600);
  state.stored = 12;
  state.announced = 3;
  state.certificateEnd = OzfObjTime(1767261600 + 86400);
  state.endingAuthority = "Fleet";
  state.awaitsRestart = "CLIENT_NAME, ORB_BIND";
  state.explorers = {
      {"host", AT_TQUCLIENT, ExplorerRecord::PUSH, 10, {OzfObjTime(1767261605), DS_SUCCESS}},
      {"service", AT_TQUCLIENT, ExplorerRecord::PUSH, 10, {OzfObjTime(1767261605), DS_SUCCESS}},
      {"rack & row", AT_EXTSRC, ExplorerRecord::PUSH, 9, {OzfObjTime(1767261606), DS_COM_ERROR}},
      {"volume", AT_TQUCLIENT, ExplorerRecord::PULL, 10, {}}};
  return state;
}

} // namespace

TEST(ServiceExplorer, storesTheServiceAndEveryOtherExplorer)
{
  Store store;
  AutoDereference<ServiceExplorer> const explorer(new ServiceExplorer(sample));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store, "client7").discStatus);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  ASSERT_EQ(4U, document.items.size());
  EXPECT_EQ("client7", document.items[0].name);
  EXPECT_EQ((FactTexts{{"Kind", "service"},
                       {"Role", "master"},
                       {"Version", "1.2"},
                       {"StartTime", "2026-01-01T10:00:00Z"},
                       {"StoredDiscoveries", "12"},
                       {"AnnouncedExplorers", "3"},
                       {"CertificateEnd", "2026-01-02T10:00:00Z"},
                       {"EndingAuthority", "Fleet"},
                       {"AwaitsRestart", "CLIENT_NAME, ORB_BIND"}}),
            document.items[0].facts);
  EXPECT_EQ("host", document.items[1].name);
  EXPECT_EQ((FactTexts{{"Kind", "push"},
                       {"Type", "client"},
                       {"Priority", "10"},
                       {"LastRun", "2026-01-01T10:00:05Z"},
                       {"LastResult", "success"}}),
            document.items[1].facts);
  EXPECT_EQ("rack & row", document.items[2].name);
  EXPECT_EQ("external", document.items[2].facts.at("Type"));
  EXPECT_EQ("communication failed", document.items[2].facts.at("LastResult"));
  EXPECT_EQ(
      (FactTexts{
          {"Kind", "pull"}, {"Type", "client"}, {"Priority", "10"}, {"LastResult", "not run"}}),
      document.items[3].facts);
}

TEST(ServiceExplorer, storesWhatIsServedAndHowWritesWent)
{
  Store store;
  AutoDereference<ServiceExplorer> const explorer(new ServiceExplorer(
      []
      {
        ServiceState state;
        state.load.emplace();
        state.load->connections = {4, 70, 5};
        state.load->iterators = 2;
        state.load->writers = 1;
        state.load->writes = {
            30, 3, 6, std::chrono::microseconds(1500000), 36, {1, 20, 34, 35, 36}};
        return state;
      }));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_EQ(1U, document.items.size());
  FactTexts facts{{"Kind", "service"}, {"Role", "client"}, {"AnnouncedExplorers", "0"}};
  facts.insert(tqtest::SERVICE_LOAD_FACTS.begin(), tqtest::SERVICE_LOAD_FACTS.end());
  EXPECT_EQ(facts, document.items[0].facts);
}

TEST(ServiceExplorer, storesHowTheRunsOfAnExplorerWent)
{
  Store store;
  AutoDereference<ServiceExplorer> const explorer(new ServiceExplorer(
      []
      {
        ServiceState state;
        ExplorerRecord::Now runs;
        runs.lastRun = OzfObjTime(1767261600);
        runs.lastSuccess = OzfObjTime(1767261000);
        runs.took = std::chrono::microseconds(1500);
        runs.memory = -4096;
        runs.result = "it exited with 1";
        runs.well = false;
        runs.runs = 5;
        runs.failures = 2;
        runs.lateRuns = 1;
        state.explorers = {{"disks",
                            AT_TQUCLIENT,
                            ExplorerRecord::SCRIPT,
                            10,
                            {runs.lastRun, DS_LOGIC_ERROR},
                            "/explorers.d/disks",
                            runs}};
        return state;
      }));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_EQ(2U, document.items.size());
  EXPECT_EQ("disks", document.items[1].name);
  EXPECT_EQ((FactTexts{{"Kind", "script"},
                       {"Type", "client"},
                       {"Priority", "10"},
                       {"LastRun", "2026-01-01T10:00:00Z"},
                       {"LastResult", "it exited with 1"},
                       {"Origin", "/explorers.d/disks"},
                       {"LastSuccess", "2026-01-01T09:50:00Z"},
                       {"LastDuration", "1500"},
                       {"LastMemory", "-4096"},
                       {"Runs", "5"},
                       {"Failures", "2"},
                       {"LateRuns", "1"}}),
            document.items[1].facts);
}

TEST(ServiceExplorer, storesTheLimitsThatWereMet)
{
  Store store;
  AutoDereference<ServiceExplorer> const explorer(new ServiceExplorer(
      []
      {
        ServiceState state;
        state.limits = {{"LIMIT_PEER_WRITERS", 32, 7, "192.0.2.1", OzfObjTime(1767261600)}};
        return state;
      }));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_EQ(2U, document.items.size());
  EXPECT_EQ("LIMIT_PEER_WRITERS", document.items[1].name);
  EXPECT_EQ((FactTexts{{"Kind", "limit"},
                       {"Value", "32"},
                       {"TimesMet", "7"},
                       {"LastPeer", "192.0.2.1"},
                       {"LastMet", "2026-01-01T10:00:00Z"}}),
            document.items[1].facts);
}

TEST(ServiceExplorer, aDatabaseThatCannotBeCountedIsLeftOut)
{
  Store store;
  AutoDereference<ServiceExplorer> const explorer(
      new ServiceExplorer([] { return ServiceState(); }));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_EQ(1U, document.items.size());
  EXPECT_EQ((FactTexts{{"Kind", "service"}, {"Role", "client"}, {"AnnouncedExplorers", "0"}}),
            document.items[0].facts);
}

TEST(ServiceExplorer, storesWhatCanBeAskedForOfBothKinds)
{
  Store store;
  AutoDereference<ServiceExplorer> const explorer(new ServiceExplorer(sample));
  explore(*explorer, AT_TQUCLIENT, &store);
  Document const document(store.only(AT_EXTSRC).payload);
  EXPECT_EQ("FilterData", document.root);
  std::multiset<std::string> names;
  for (auto const& attribute : document.attributeList)
    names.insert(attribute.at("Name"));
  EXPECT_EQ(1U, names.count("Kind"));
  EXPECT_EQ(1U, names.count("Role"));
  EXPECT_EQ(1U, names.count("LastResult"));
  EXPECT_EQ(1U, names.count("TimesMet"));
}

TEST(ServiceExplorer, whatCannotBeCollectedIsAFailedRun)
{
  Store store;
  AutoDereference<ServiceExplorer> const explorer(
      new ServiceExplorer([]() -> ServiceState { throw std::runtime_error("no framework"); }));
  EXPECT_EQ(DS_LOGIC_ERROR, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  EXPECT_TRUE(store.records().empty());
}
