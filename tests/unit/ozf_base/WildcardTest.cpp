#include "ozf/base/Wildcard.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

// The rule as it stands.
bool matches(std::string_view pattern, std::string_view text)
{
  if (pattern.empty())
    return text.empty();
  if (pattern.front() == '*')
    return matches(pattern.substr(1), text) || (!text.empty() && matches(pattern, text.substr(1)));
  return !text.empty() && pattern.front() == text.front() &&
         matches(pattern.substr(1), text.substr(1));
}

// Every text of at most length letters.
std::vector<std::string> textsOf(std::string const& letters, std::size_t length)
{
  std::vector<std::string> texts = {""};
  for (std::size_t i = 0; i < texts.size() && texts[i].size() < length; ++i)
    for (char const letter : letters)
      texts.push_back(std::string(texts[i]) + letter);
  return texts;
}

} // namespace

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

TEST(Wildcard, EveryShortPatternMatchesWhatTheRuleSays)
{
  std::vector<std::string> const texts = textsOf("ab", 5);
  for (std::string const& pattern : textsOf("ab*", 5))
    for (std::string const& text : texts)
    {
      EXPECT_EQ(matches(pattern, text), wildcardcmp(pattern, text) == 0) << pattern << " " << text;
      EXPECT_EQ(matches(pattern, text), wildcardcmp(pattern, text, true) == 0)
          << pattern << " " << text;
    }
}

TEST(Wildcard, NoOtherCharacterIsSpecial)
{
  EXPECT_NE(wildcardcmp("a?c", "abc"), 0);
  EXPECT_NE(wildcardcmp("[ab]", "a"), 0);
  EXPECT_EQ(wildcardcmp("[ab]?\\", "[ab]?\\"), 0);
  EXPECT_EQ(wildcardcmp("a*", "a*b"), 0);
}

TEST(Wildcard, APatternEndsBeforeTheStarThatFollowsItInALongerText)
{
  std::string_view const longer = "ab*";
  EXPECT_NE(wildcardcmp(longer.substr(0, 2), "abc"), 0);
  EXPECT_EQ(wildcardcmp(longer, "abc"), 0);
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
