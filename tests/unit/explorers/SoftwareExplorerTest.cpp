#include "explorers/SoftwareExplorer.h"

#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

using namespace ExplorerTesting;
using Explorers::SoftwareExplorer;

namespace
{

std::optional<std::string> onePackageOfRpm() { return "bash\t5.1.8-9.el9\tx86_64\t7738778\n"; }

} // namespace

TEST(SoftwareExplorer, storesAnItemForTheHostAndOneForEachPackage)
{
  Store store;
  AutoDereference<SoftwareExplorer> const explorer(
      new SoftwareExplorer(fixture("server"), onePackageOfRpm));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store, "client7").discStatus);
  auto const record = store.only(AT_TQUCLIENT);
  EXPECT_EQ("software", record.authority);
  Document const document(record.payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  ASSERT_EQ(5U, document.items.size());
  std::map<std::string, std::string> const host = {
      {"Managers", "dpkg rpm"}, {"Packages", "4"}, {"Complete", "true"}};
  EXPECT_EQ("client7", document.items[0].name);
  EXPECT_EQ(host, document.items[0].facts);
  std::map<std::string, std::string> const package = {{"Package", "libexample1"},
                                                      {"Manager", "dpkg"},
                                                      {"Version", "2.36-9+deb12u14"},
                                                      {"Architecture", "amd64"},
                                                      {"Size", "13333504"}};
  EXPECT_EQ("libexample1", document.items[1].name);
  EXPECT_EQ(package, document.items[1].facts);
  EXPECT_EQ("half-configured", document.items[3].facts.at("State"));
}

TEST(SoftwareExplorer, aDamagedDatabaseKeepsTheDocumentWhole)
{
  Store store;
  AutoDereference<SoftwareExplorer> const explorer(
      new SoftwareExplorer(fixture("damaged"), onePackageOfRpm));
  explore(*explorer, AT_TQUCLIENT, &store);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("false", document.items.at(0).facts.at("Complete"));
  EXPECT_EQ("<odd>&\xef\xbf\xbd[31m\xef\xbf\xbd", document.items.at(1).name);
}

TEST(SoftwareExplorer, whatCanBeAskedIsStoredWithKindsAndUnits)
{
  Store store;
  TempDir const dir;
  AutoDereference<SoftwareExplorer> const explorer(
      new SoftwareExplorer(dir.path(), onePackageOfRpm));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.only(AT_EXTSRC).payload);
  std::map<std::string, std::string> kinds;
  for (auto const& attribute : document.attributeList)
    kinds[attribute.at("Name")] =
        attribute.at("Type") + (attribute.count("Unit") != 0 ? ' ' + attribute.at("Unit") : "");
  std::map<std::string, std::string> const expected = {
      {"Managers", "text"},     {"Packages", "number"}, {"Complete", "boolean"},
      {"Package", "text"},      {"Manager", "text"},    {"Version", "text"},
      {"Architecture", "text"}, {"Size", "size bytes"}, {"State", "text"}};
  EXPECT_EQ(expected, kinds);
}

TEST(SoftwareExplorer, runsEverySixHours)
{
  AutoDereference<SoftwareExplorer> const explorer(new SoftwareExplorer);
  EXPECT_EQ(21600U, explorer->getPollingInterval());
}
