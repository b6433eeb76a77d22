#include "explorers/VolumeFilterExplorer.h"

#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

using namespace ExplorerTesting;

TEST(VolumeFilterExplorer, storesFilterDataAndNothingElse)
{
  Store store;
  AutoDereference<ExplorerPush> const explorer(new Explorers::VolumeFilterExplorer);
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_EXTSRC, &store).discStatus);
  EXPECT_EQ(std::vector<DiscoveryQuery>{DQ_FILTER_DATA}, store.queries);
  ASSERT_EQ(1U, store.records().size());
  auto const record = store.only(AT_EXTSRC);
  EXPECT_EQ("volume-filter", record.authority);
  Document const document(record.payload);
  EXPECT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("FilterData", document.root);
}

TEST(VolumeFilterExplorer, runsOnceADay)
{
  AutoDereference<ExplorerPush> const explorer(new Explorers::VolumeFilterExplorer);
  EXPECT_EQ(86400U, explorer->getPollingInterval());
}
