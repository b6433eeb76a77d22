#include "explorers/NetworkExplorer.h"

#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

using namespace ExplorerTesting;
using Explorers::NetworkExplorer;

namespace
{

std::vector<Explorers::InterfaceAddress> twoAddresses()
{
  return {{"bond0", "192.0.2.9/24"}, {"bond0", "2001:db8::9/64"}};
}

} // namespace

TEST(NetworkExplorer, storesAnItemForTheHostAndOneForEachInterface)
{
  Store store;
  AutoDereference<NetworkExplorer> const explorer(
      new NetworkExplorer(fixture("server"), twoAddresses));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store, "client7").discStatus);
  auto const record = store.only(AT_TQUCLIENT);
  EXPECT_EQ("network", record.authority);
  Document const document(record.payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  ASSERT_EQ(7U, document.items.size());
  EXPECT_EQ("client7", document.items[0].name);
  std::map<std::string, std::string> const host = {
      {"Kind", "host"},
      {"NameServers", "192.0.2.53 2001:db8::53"},
      {"SearchDomains", "example.net lab.example.net"}};
  EXPECT_EQ(host, document.items[0].facts);
  std::map<std::string, std::string> const bond = {{"Interface", "bond0"},
                                                   {"Kind", "bond"},
                                                   {"State", "up"},
                                                   {"Mac", "02:00:5e:00:53:01"},
                                                   {"Mtu", "9000"},
                                                   {"Speed", "10000"},
                                                   {"Addresses", "192.0.2.9/24 2001:db8::9/64"},
                                                   {"Gateways", "192.0.2.1 fe80::1 192.0.2.254"}};
  ASSERT_NE(nullptr, document.find("bond0"));
  EXPECT_EQ(bond, document.find("bond0")->facts);
}

TEST(NetworkExplorer, damagedFactsKeepTheDocumentWhole)
{
  Store store;
  AutoDereference<NetworkExplorer> const explorer(new NetworkExplorer(
      fixture("damaged"), [] { return std::vector<Explorers::InterfaceAddress>(); }));
  explore(*explorer, AT_TQUCLIENT, &store);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("\xef\xbf\xbd]0;<&>\xef\xbf\xbd\xef\xbf\xbd",
            document.items.at(0).facts.at("NameServers"));
  EXPECT_EQ("\xef\xbf\xbd\xef\xbf\xbdup", document.items.at(1).facts.at("State"));
}

TEST(NetworkExplorer, whatCanBeAskedIsStoredWithUnits)
{
  Store store;
  AutoDereference<NetworkExplorer> const explorer(new NetworkExplorer);
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  EXPECT_EQ(2U, store.records().size());
  Document const document(store.only(AT_EXTSRC).payload);
  std::map<std::string, std::string> units;
  for (auto const& attribute : document.attributeList)
    units[attribute.at("Name")] = attribute.count("Unit") != 0 ? attribute.at("Unit") : "";
  EXPECT_EQ("bytes", units.at("Mtu"));
  EXPECT_EQ("Mb/s", units.at("Speed"));
  EXPECT_EQ("", units.at("NameServers"));
  EXPECT_EQ(11U, units.size());
}

TEST(NetworkExplorer, runsEveryFiveMinutes)
{
  AutoDereference<NetworkExplorer> const explorer(new NetworkExplorer);
  EXPECT_EQ(300U, explorer->getPollingInterval());
}
