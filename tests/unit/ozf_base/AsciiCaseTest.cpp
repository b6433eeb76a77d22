#include "ozf/base/AsciiCase.h"

#include "tests/support/OddLocale.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

TEST(AsciiCase, OnlyAsciiLettersHaveACase)
{
  EXPECT_TRUE(equalIgnoringCase("Host-1_[z]", "hOST-1_[Z]"));
  EXPECT_TRUE(equalIgnoringCase("", ""));
  EXPECT_FALSE(equalIgnoringCase("host", "hosts"));
  EXPECT_FALSE(equalIgnoringCase("[", "{")) << "as far apart as A and a";
  EXPECT_FALSE(equalIgnoringCase("\xc4", "\xe4"));
}

TEST(AsciiCase, OrdersByLowerCaseThenByLength)
{
  EXPECT_EQ(0, compareIgnoringCase("ABC", "abc"));
  EXPECT_LT(compareIgnoringCase("abc", "ABD"), 0);
  EXPECT_GT(compareIgnoringCase("B", "a"), 0);
  EXPECT_LT(compareIgnoringCase("ab", "ABC"), 0);
  EXPECT_GT(compareIgnoringCase("ABC", "ab"), 0);
  EXPECT_LT(compareIgnoringCase("", "a"), 0);
  EXPECT_LT(compareIgnoringCase("_", "A"), 0) << "letters compare as lower case";
  EXPECT_GT(compareIgnoringCase("\xc3\xa4", "z"), 0) << "bytes have no sign";
}

TEST(AsciiCase, IsTheSameInEveryLocale)
{
  tqtest::OddLocale const locale;
  EXPECT_TRUE(equalIgnoringCase("I", "i"));
  EXPECT_EQ(0, compareIgnoringCase("DISK-I", "disk-i"));
}
