#include "explorers/HostExplorer.h"

#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

using namespace ExplorerTesting;
using Explorers::HostExplorer;

TEST(HostExplorer, storesOneItemNamedAfterTheSubject)
{
  Store store;
  AutoDereference<HostExplorer> const explorer(new HostExplorer(fixture("server")));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store, "client 7").discStatus);
  EXPECT_EQ(1U, store.records().size());
  auto const record = store.only(AT_TQUCLIENT);
  EXPECT_EQ("host", record.authority);

  Document const document(record.payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  ASSERT_EQ(1U, document.items.size());
  EXPECT_EQ("client 7", document.items[0].name);
  EXPECT_EQ("host", document.items[0].explorer);
  std::map<std::string, std::string> const facts = {
      {"HostName", "backup-one"},
      {"OsName", "Debian GNU/Linux 12 (bookworm)"},
      {"OsId", "debian"},
      {"OsVersion", "12"},
      {"KernelName", "Linux"},
      {"KernelRelease", "6.1.0-28-amd64"},
      {"KernelVersion", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.119-1"},
      {"Architecture", "x86_64"},
      {"Processors", "4"},
      {"ProcessorModel", "Example Processor E5 @ 2.40GHz"},
      {"Memory", "16660750336"},
      {"Swap", "2147479552"},
      {"BootTime", "2026-01-01T10:00:00Z"}};
  EXPECT_EQ(facts, document.items[0].facts);
}

TEST(HostExplorer, aHostThatTellsNothingIsExploredAllTheSame)
{
  TempDir const dir;
  Store store;
  AutoDereference<HostExplorer> const explorer(new HostExplorer(dir.path()));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_EQ(1U, document.items.size());
  EXPECT_TRUE(document.items[0].facts.empty());
}

TEST(HostExplorer, damagedFactsKeepTheDocumentWhole)
{
  Store store;
  AutoDereference<HostExplorer> const explorer(new HostExplorer(fixture("damaged")));
  explore(*explorer, AT_TQUCLIENT, &store);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("A \"quoted\" & <marked> \xef\xbf\xbd name", document.items.at(0).facts.at("OsName"));
}

TEST(HostExplorer, runsEveryHour)
{
  AutoDereference<HostExplorer> const explorer(new HostExplorer);
  EXPECT_EQ(3600U, explorer->getPollingInterval());
}
