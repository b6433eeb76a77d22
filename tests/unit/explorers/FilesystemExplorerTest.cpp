#include "explorers/FilesystemExplorer.h"

#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

using namespace ExplorerTesting;
using Explorers::FilesystemExplorer;

namespace
{

AutoDereference<FilesystemExplorer> explorerOf(std::string const& root)
{
  return AutoDereference<FilesystemExplorer>(new FilesystemExplorer(
      root, Explorers::SpaceProbe(
                [](std::string const& path, dev_t) {
                  return Explorers::Space{4096, 1024, 2048, path == "/" ? 0U : 7U, 3};
                },
                std::chrono::seconds(60), std::chrono::seconds(60))));
}

} // namespace

TEST(FilesystemExplorer, storesOneItemForEveryMount)
{
  Store store;
  auto const explorer = explorerOf(fixture("server"));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);

  auto const record = store.only(AT_TQUCLIENT);
  EXPECT_EQ("filesystem", record.authority);
  EXPECT_EQ("backup-one", record.subject);
  Document const document(record.payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("DiscoveredItems", document.root);
  EXPECT_EQ(25U, document.items.size());

  auto const* const boot = document.find("/boot");
  ASSERT_NE(nullptr, boot);
  EXPECT_EQ("filesystem", boot->explorer);
  std::map<std::string, std::string> const facts = {
      {"MountPoint", "/boot"},
      {"Type", "ext4"},
      {"Kind", "local"},
      {"Source", "/dev/sda1"},
      {"Root", "/"},
      {"Device", "8:1"},
      {"Options", "rw,relatime"},
      {"Uuid", "4e0d6f8a-51c2-4b8e-a1f5-0c9d8e7b6a5f"},
      {"Label", "boot"},
      {"Size", "4096"},
      {"Used", "1024"},
      {"Available", "2048"},
      {"Use", "34%"},
      {"Inodes", "7"},
      {"InodesUsed", "3"}};
  EXPECT_EQ(facts, boot->facts);
}

TEST(FilesystemExplorer, aShareIsStoredWithoutSizes)
{
  Store store;
  explore(*explorerOf(fixture("server")), AT_TQUCLIENT, &store);
  Document const document(store.only(AT_TQUCLIENT).payload);
  auto const* const share = document.find("/mnt/share");
  ASSERT_NE(nullptr, share);
  EXPECT_EQ("network", share->facts.at("Kind"));
  EXPECT_EQ("filer.example.net:/export/share", share->facts.at("Source"));
  EXPECT_EQ(0U, share->facts.count("Size"));
}

TEST(FilesystemExplorer, whatIsHiddenUnderAnotherFileSystemSaysSo)
{
  TempDir const dir;
  std::filesystem::create_directories(dir / "proc/self");
  writeText(dir / "proc/self/mountinfo", "26 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                         "40 26 8:2 / /srv/old rw - ext4 /dev/sda2 rw\n"
                                         "41 26 8:3 / /srv rw - ext4 /dev/sda3 rw\n");
  Store store;
  explore(*explorerOf(dir.path()), AT_TQUCLIENT, &store);
  Document const document(store.only(AT_TQUCLIENT).payload);
  auto const* const old = document.find("/srv/old");
  ASSERT_NE(nullptr, old);
  ASSERT_EQ(1U, old->facts.count("Hidden"));
  EXPECT_EQ("true", old->facts.at("Hidden"));
  EXPECT_EQ(0U, old->facts.count("Size"));
  EXPECT_EQ(0U, document.find("/srv")->facts.count("Hidden"));
}

TEST(FilesystemExplorer, aFileSystemWithoutFixedInodesTellsNone)
{
  Store store;
  explore(*explorerOf(fixture("server")), AT_TQUCLIENT, &store);
  Document const document(store.only(AT_TQUCLIENT).payload);
  auto const* const root = document.find("/");
  ASSERT_NE(nullptr, root);
  EXPECT_EQ("4096", root->facts.at("Size"));
  EXPECT_EQ(0U, root->facts.count("Inodes"));
  EXPECT_EQ(0U, root->facts.count("InodesUsed"));
}

TEST(FilesystemExplorer, namesThatAreNoTextKeepTheDocumentWhole)
{
  Store store;
  explore(*explorerOf(fixture("server")), AT_TQUCLIENT, &store);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("caf\xef\xbf\xbd", document.find("/home")->facts.at("Label"));
  EXPECT_NE(nullptr, document.find("/mnt/tab\tand\\slash"));
}

TEST(FilesystemExplorer, filterDataStandsBesideTheDataAndNotInItsPlace)
{
  Store store;
  explore(*explorerOf(fixture("server")), AT_TQUCLIENT, &store);
  EXPECT_EQ((std::vector<DiscoveryQuery>{DQ_DISCOVERY_DATA, DQ_FILTER_DATA}), store.queries);
  EXPECT_EQ(2U, store.records().size());
  auto const record = store.only(AT_EXTSRC);
  EXPECT_EQ("filesystem", record.authority);
  Document const document(record.payload);
  EXPECT_EQ("FilterData", document.root);
  EXPECT_EQ(Explorers::filesystemFacts().size(), document.attributeList.size());
}

TEST(FilesystemExplorer, aHostWithoutAMountTableIsExploredAllTheSame)
{
  TempDir const dir;
  Store store;
  EXPECT_EQ(DS_SUCCESS, explore(*explorerOf(dir.path()), AT_TQUCLIENT, &store).discStatus);
  EXPECT_TRUE(Document(store.only(AT_TQUCLIENT).payload).wellFormed);
}

TEST(FilesystemExplorer, dataOfHigherPriorityIsReported)
{
  Store store;
  auto const explorer = explorerOf(fixture("server"));
  explore(*explorer, AT_TQUCLIENT, &store, "backup-one", 11);
  auto const result = explore(*explorer, AT_TQUCLIENT, &store);
  EXPECT_EQ(DS_DATA_EXISTS, result.discStatus);
  EXPECT_EQ(300U, result.retryInterval);
}

TEST(FilesystemExplorer, runsEveryFiveMinutes)
{
  EXPECT_EQ(300U, explorerOf("/")->getPollingInterval());
}

TEST(FilesystemExplorer, exploresThisHost)
{
  Store store;
  AutoDereference<FilesystemExplorer> const explorer(new FilesystemExplorer);
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.only(AT_TQUCLIENT).payload);
  EXPECT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_NE(nullptr, document.find("/proc"));
}
