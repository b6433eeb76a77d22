#include "explorers/HostExplorer.h"

#include "discovery/ExplorerPayload.h"
#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

using namespace ExplorerTesting;
using Explorers::HostExplorer;

TEST(HostExplorer, storesOneItemNamedAfterTheSubject)
{
  Store store;
  AutoDereference<HostExplorer> const explorer(new HostExplorer(fixture("server")));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store, "client 7").discStatus);
  EXPECT_EQ(3U, store.records().size());
  auto const record = store.of("host");
  EXPECT_EQ("host", record.authority);

  Document const document(record.payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  ASSERT_EQ(1U, document.items.size());
  EXPECT_EQ("client 7", document.items[0].name);
  EXPECT_EQ("host", document.items[0].explorer);
  std::map<std::string, std::string> const facts = {
      {"HostName", "backup-one"},
      {"MachineId", "9d2f6a8c41e74b0f8a3c5d7e6f102b34"},
      {"OsName", "Debian GNU/Linux 12 (bookworm)"},
      {"OsId", "debian"},
      {"OsVersion", "12"},
      {"KernelName", "Linux"},
      {"KernelRelease", "6.1.0-28-amd64"},
      {"KernelVersion", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.119-1"},
      {"Architecture", "x86_64"},
      {"Processors", "4"},
      {"ProcessorSockets", "2"},
      {"ProcessorCores", "2"},
      {"ProcessorModel", "Example Processor E5 @ 2.40GHz"},
      {"Memory", "16660750336"},
      {"Swap", "2147479552"},
      {"BootTime", "2026-01-01T10:00:00Z"},
      {"BootId", "5f0c2b1a-9d8e-4c7b-a6f5-0123456789ab"},
      {"TimeZone", "Europe/Berlin"},
      {"Virtualization", "none"},
      {"Container", "none"},
      {"Vendor", "Example Machines"},
      {"Product", "Rack Server R1"},
      {"FirmwareVendor", "Example Firmware"},
      {"FirmwareVersion", "2.19.0"}};
  EXPECT_EQ(facts, document.items[0].facts);
}

TEST(HostExplorer, theMachineSaysUnderANameOfItsOwnThatItReports)
{
  Store store;
  AutoDereference<HostExplorer> const explorer(new HostExplorer(fixture("server")));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store, "client7").discStatus);
  auto const record = store.of("machine.9d2f6a8c41e74b0f8a3c5d7e6f102b34");
  EXPECT_EQ(AT_TQUCLIENT, record.type);
  Document const document(record.payload);
  ASSERT_EQ(1U, document.items.size());
  EXPECT_EQ("client7", document.items[0].name);
  std::map<std::string, std::string> const facts = {
      {"MachineId", "9d2f6a8c41e74b0f8a3c5d7e6f102b34"},
      {"HostName", "backup-one"},
      {"BootId", "5f0c2b1a-9d8e-4c7b-a6f5-0123456789ab"},
      {"Vendor", "Example Machines"},
      {"Product", "Rack Server R1"},
      {"Virtualization", "none"}};
  EXPECT_EQ(facts, document.items[0].facts);
}

TEST(HostExplorer, serialNumbersAreToldOnlyWhereTheConfigurationSaysSo)
{
  Store store;
  AutoDereference<HostExplorer> const explorer(
      new HostExplorer(fixture("server"), Explorers::Secrets::Told));
  explore(*explorer, AT_TQUCLIENT, &store);
  Document const document(store.of("host").payload);
  EXPECT_EQ("EX4711", document.items.at(0).facts.at("SerialNumber"));
  EXPECT_EQ("4c4c4544-0000-2010-8020-80c04f202020", document.items[0].facts.at("ProductUuid"));
}

TEST(HostExplorer, whatCanBeAskedOfAHostIsStoredBesideIt)
{
  Store store;
  AutoDereference<HostExplorer> const explorer(new HostExplorer(fixture("server")));
  explore(*explorer, AT_TQUCLIENT, &store);
  EXPECT_EQ(Explorers::filterDocument(Explorers::hostFacts()), store.only(AT_EXTSRC).payload);
}

TEST(HostExplorer, aHostThatTellsNothingIsExploredAllTheSame)
{
  TempDir const dir;
  Store store;
  AutoDereference<HostExplorer> const explorer(new HostExplorer(dir.path()));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.of("host").payload);
  ASSERT_EQ(1U, document.items.size());
  EXPECT_TRUE(document.items[0].facts.empty());
}

TEST(HostExplorer, damagedFactsKeepTheDocumentWhole)
{
  Store store;
  AutoDereference<HostExplorer> const explorer(new HostExplorer(fixture("damaged")));
  explore(*explorer, AT_TQUCLIENT, &store);
  Document const document(store.of("host").payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("A \"quoted\" & <marked> \xef\xbf\xbd name", document.items.at(0).facts.at("OsName"));
  EXPECT_EQ("\xef\xbf\xbdVendor <&> \xef\xbf\xbd[31m\xef\xbf\xbd",
            document.items.at(0).facts.at("Vendor"));
}

TEST(HostExplorer, runsEveryHour)
{
  AutoDereference<HostExplorer> const explorer(new HostExplorer);
  EXPECT_EQ(3600U, explorer->getPollingInterval());
}
