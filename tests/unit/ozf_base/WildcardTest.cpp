#include "ozf/base/Wildcard.h"

#include <gtest/gtest.h>
#include <string>

using namespace Quillon::Tessarine::Ozf;

TEST(Wildcard, WithoutAStarTheTextsMustBeEqual)
{
  EXPECT_EQ(wildcardcmp("abc", "abc"), 0);
  EXPECT_NE(wildcardcmp("abc", "abcd"), 0);
  EXPECT_NE(wildcardcmp("abcd", "abc"), 0);
  EXPECT_EQ(wildcardcmp("", ""), 0);
  EXPECT_NE(wildcardcmp("", "a"), 0);
  EXPECT_NE(wildcardcmp("a", ""), 0);
}

TEST(Wildcard, AStarStandsForAnyRun)
{
  EXPECT_EQ(wildcardcmp("*", ""), 0);
  EXPECT_EQ(wildcardcmp("*", "anything"), 0);
  EXPECT_EQ(wildcardcmp("**", "x"), 0);
  EXPECT_EQ(wildcardcmp("*.updating", "3.updating"), 0);
  EXPECT_EQ(wildcardcmp("*.updating", ".updating"), 0);
  EXPECT_NE(wildcardcmp("*.updating", "x.updating.bak"), 0);
  EXPECT_EQ(wildcardcmp("2 * host*.xml", "2 filesystem hostA.xml"), 0);
  EXPECT_NE(wildcardcmp("2 * host*.xml", "3 filesystem hostA.xml"), 0);
}

TEST(Wildcard, GivesUpWhatAStarTookTooEarly)
{
  EXPECT_EQ(wildcardcmp("*ab", "aab"), 0);
  EXPECT_EQ(wildcardcmp("a*b*c", "abxbxxcbc"), 0);
  EXPECT_NE(wildcardcmp("a*b*c", "abxbxx"), 0);
  EXPECT_EQ(wildcardcmp("*aab*", "aaaaaab"), 0);
}

TEST(Wildcard, NoOtherCharacterIsSpecial)
{
  EXPECT_NE(wildcardcmp("a?c", "abc"), 0);
  EXPECT_NE(wildcardcmp("[ab]", "a"), 0);
  EXPECT_EQ(wildcardcmp("[ab]?\\", "[ab]?\\"), 0);
  EXPECT_EQ(wildcardcmp("a*", "a*b"), 0);
}

TEST(Wildcard, FoldsAsciiLettersOnlyWhenAsked)
{
  EXPECT_NE(wildcardcmp("Host*", "hostA"), 0);
  EXPECT_EQ(wildcardcmp("Host*", "hOSTa", true), 0);
  EXPECT_NE(wildcardcmp("\xc3\x84", "\xc3\xa4", true), 0);
  EXPECT_NE(wildcardcmp("[", "{", true), 0);
}

TEST(Wildcard, ManyStarsCostNoMoreThanTheProduct)
{
  std::string pattern;
  for (int i = 0; i < 1000; ++i)
    pattern += "*a";
  pattern += "b";
  // A matcher that tries every split would not end while anybody waits.
  EXPECT_NE(wildcardcmp(pattern, std::string(10000, 'a')), 0);
}
