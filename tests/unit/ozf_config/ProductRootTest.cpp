#include "ozf/config/ProductRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace Quillon::Tessarine::Ozf;

namespace
{

class ProductRootTest : public testing::Test
{
protected:
  ~ProductRootTest() override { unsetenv("TESSARINE_ROOT"); }
};

TEST_F(ProductRootTest, IsTheInstalledOneWithoutTheVariable)
{
  unsetenv("TESSARINE_ROOT");
  EXPECT_EQ(getProductRoot(), "/usr/kestrel/tessarine");
  EXPECT_EQ(getDefaultDatabasePath(), "/usr/kestrel/tessarine/db/discovery");
}

TEST_F(ProductRootTest, AnEmptyVariableCountsAsNone)
{
  setenv("TESSARINE_ROOT", "", 1);
  EXPECT_EQ(getProductRoot(), "/usr/kestrel/tessarine");
}

TEST_F(ProductRootTest, FollowsTheVariableOnEveryCallAndDropsSlashesAtTheEnd)
{
  setenv("TESSARINE_ROOT", "/one//", 1);
  EXPECT_EQ(getConfigurationPath(), "/one/etc/tq.conf");
  setenv("TESSARINE_ROOT", "/two", 1);
  EXPECT_EQ(getConfigurationPath(), "/two/etc/tq.conf");
  EXPECT_EQ(getLibraryDirectory(), "/two/lib");
  EXPECT_EQ(getPluginDirectory(), "/two/lib/plugins");
  EXPECT_EQ(getLogDirectory(), "/two/log");
}

TEST_F(ProductRootTest, TheFileSystemsRootMayBeTheProducts)
{
  setenv("TESSARINE_ROOT", "//", 1);
  EXPECT_EQ(getProductRoot(), "/");
  EXPECT_EQ(getLogDirectory(), "/log");
}

} // namespace
