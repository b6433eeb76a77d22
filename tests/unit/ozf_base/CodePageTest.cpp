#include "ozf/base/CodePage.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

TEST(CodePage, EveryNameGivesUtf8)
{
  EXPECT_EQ(findCodePage(""), CodePage::Utf8);
  EXPECT_EQ(findCodePage("UTF-8"), CodePage::Utf8);
  EXPECT_EQ(findCodePage("no such page"), CodePage::Utf8);
}
