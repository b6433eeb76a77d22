#include "ozf/xml/QueryExpression.h"

#include "ozf/xml/OzfQuery.h"

#include <gtest/gtest.h>

#include <map>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Values = std::map<std::string, std::string, std::less<>>;

bool answers(std::string const& query, Values const& values)
{
  ParsedQuery const parsed = parseQuery(query);
  EXPECT_EQ(0, parsed.result) << query << ": " << parsed.error;
  if (parsed.result != 0)
    return false;
  return evaluateQuery(parsed.expression,
                       [&values](std::string_view name) -> std::optional<std::string>
                       {
                         auto const found = values.find(name);
                         if (found == values.end())
                           return std::nullopt;
                         return found->second;
                       });
}

std::string mistake(std::string const& query)
{
  ParsedQuery const parsed = parseQuery(query);
  EXPECT_NE(0, parsed.result) << query;
  return parsed.error;
}

TEST(QueryExpressionTest, EveryComparisonOfNumbers)
{
  struct
  {
    char const* comparator;
    bool less, equal, greater;
  } const cases[] = {{"=", false, true, false}, {"!=", true, false, true},
                     {"<", true, false, false}, {"<=", true, true, false},
                     {">", false, false, true}, {">=", false, true, true}};
  for (auto const& c : cases)
  {
    std::string const query = std::string("n ") + c.comparator + " 10";
    EXPECT_EQ(c.less, answers(query, {{"n", "9"}})) << query;
    EXPECT_EQ(c.equal, answers(query, {{"n", "10"}})) << query;
    EXPECT_EQ(c.greater, answers(query, {{"n", "11"}})) << query;
  }
}

TEST(QueryExpressionTest, NumbersCompareByValueAndQuotedTextsByBytes)
{
  EXPECT_TRUE(answers("n < 10", {{"n", "9"}}));
  EXPECT_FALSE(answers("n < '10'", {{"n", "9"}}));
  EXPECT_TRUE(answers("n = 10", {{"n", "10.0"}}));
  EXPECT_FALSE(answers("n = \"10\"", {{"n", "10.0"}}));
  EXPECT_TRUE(answers("n = -1.5", {{"n", "-1.50"}}));
  EXPECT_TRUE(answers("n > 9007199254740992", {{"n", "9007199254740993"}}));
  EXPECT_TRUE(answers("n < 18446744073709551615", {{"n", "18446744073709551614"}}));
}

TEST(QueryExpressionTest, TextsCompareByBytesAndLetterCaseCounts)
{
  EXPECT_TRUE(answers("type = ext4", {{"type", "ext4"}}));
  EXPECT_FALSE(answers("type = EXT4", {{"type", "ext4"}}));
  EXPECT_TRUE(answers("type != xfs", {{"type", "ext4"}}));
  EXPECT_TRUE(answers("time >= 2026-11-20T10:15:00Z", {{"time", "2026-11-20T10:15:01Z"}}));
  EXPECT_FALSE(answers("time >= 2026-11-20T10:15:00Z", {{"time", "2026-11-20T10:14:59Z"}}));
}

TEST(QueryExpressionTest, AValueThatIsNoNumberAnswersOnlyUnequalToANumber)
{
  for (char const* query : {"n = 1", "n < 1", "n <= 1", "n > 1", "n >= 1"})
    EXPECT_FALSE(answers(query, {{"n", "many"}})) << query;
  EXPECT_TRUE(answers("n != 1", {{"n", "many"}}));
}

TEST(QueryExpressionTest, UnitsMultiply)
{
  std::pair<char const*, long double> const units[] = {
      {"2", 2},
      {"2B", 2},
      {"2K", 2048},
      {"2KiB", 2048},
      {"2KB", 2000},
      {"2M", 2097152},
      {"2MiB", 2097152},
      {"2MB", 2000000},
      {"2G", 2147483648},
      {"2GiB", 2147483648},
      {"2GB", 2000000000},
      {"2T", 2199023255552},
      {"2TiB", 2199023255552},
      {"2TB", 2000000000000},
      {"2P", 2251799813685248},
      {"2PiB", 2251799813685248},
      {"2PB", 2000000000000000},
      {"1.5K", 1536},
      {"2s", 2},
      {"2m", 120},
      {"2h", 7200},
      {"2d", 172800},
      {"2w", 1209600},
      {"-2h", -7200},
      {"+2h", 7200},
  };
  for (auto const& [text, value] : units)
    EXPECT_EQ(value, parseQueryNumber(text)) << text;
}

TEST(QueryExpressionTest, WhatOnlyLooksLikeANumberIsNone)
{
  for (char const* text :
       {"",    "-",   "+",   "K",   "x1",    "1x", "1 K",  " 1",  "1 ",   "1e5", "0x10",
        "inf", "nan", "--1", "+-1", "1.2.3", "1k", "1KIB", "1kb", "-inf", ".5"})
    EXPECT_FALSE(parseQueryNumber(text)) << text;
  EXPECT_FALSE(parseQueryNumber(std::string(6000, '9')));
}

TEST(QueryExpressionTest, BothSidesMayCarryUnits)
{
  EXPECT_TRUE(answers("size > 10G", {{"size", "10737418241"}}));
  EXPECT_FALSE(answers("size > 10G", {{"size", "10737418240"}}));
  EXPECT_TRUE(answers("size >= 1024M", {{"size", "1G"}}));
  EXPECT_TRUE(answers("age < 2d", {{"age", "47h"}}));
}

TEST(QueryExpressionTest, LikeMatchesWithStars)
{
  EXPECT_TRUE(answers("path like /home/*", {{"path", "/home/a/b"}}));
  EXPECT_TRUE(answers("path LIKE '*.log'", {{"path", "/x y.log"}}));
  EXPECT_FALSE(answers("path like /home/*", {{"path", "/var/home/"}}));
  EXPECT_FALSE(answers("path like log", {{"path", "a.log"}}));
  EXPECT_TRUE(answers("n like 1*", {{"n", "12"}}));
  EXPECT_FALSE(answers("path like A*", {{"path", "ab"}})) << "letter case counts";
}

TEST(QueryExpressionTest, StarsMeanThemselvesOutsideLike)
{
  EXPECT_FALSE(answers("a = x*", {{"a", "xy"}}));
  EXPECT_TRUE(answers("a = x*", {{"a", "x*"}}));
}

TEST(QueryExpressionTest, AndBindsTighterThanOrAndNotTighterThanAnd)
{
  EXPECT_TRUE(answers("a=1 or b=1 and c=1", {{"a", "1"}, {"b", "0"}, {"c", "0"}}));
  EXPECT_FALSE(answers("(a=1 or b=1) and c=1", {{"a", "1"}, {"b", "0"}, {"c", "0"}}));
  EXPECT_TRUE(answers("b=1 and c=1 or a=1", {{"a", "1"}, {"b", "0"}, {"c", "0"}}));
  EXPECT_FALSE(answers("not a=1 and b=1", {{"a", "0"}, {"b", "0"}}));
  EXPECT_TRUE(answers("not (a=1 and b=1)", {{"a", "0"}, {"b", "0"}}));
  EXPECT_TRUE(answers("not not a=1", {{"a", "1"}}));
}

TEST(QueryExpressionTest, ChainsNeedOneOrAll)
{
  EXPECT_TRUE(answers("a=1 or a=2 or a=3", {{"a", "3"}}));
  EXPECT_FALSE(answers("a=1 or a=2 or a=3", {{"a", "4"}}));
  EXPECT_TRUE(answers("a=1 and b=2 and c=3", {{"a", "1"}, {"b", "2"}, {"c", "3"}}));
  EXPECT_FALSE(answers("a=1 and b=2 and c=3", {{"a", "1"}, {"b", "2"}, {"c", "4"}}));
}

TEST(QueryExpressionTest, KeywordsIgnoreLetterCase)
{
  EXPECT_TRUE(answers("Not a=1 AND b=2 oR c=3", {{"a", "0"}, {"b", "2"}}));
}

TEST(QueryExpressionTest, WordsThatBeginLikeKeywordsAreWords)
{
  EXPECT_TRUE(answers("order=1 and android=2 and nothing=3 and liked=likely",
                      {{"order", "1"}, {"android", "2"}, {"nothing", "3"}, {"liked", "likely"}}));
}

TEST(QueryExpressionTest, BlanksAreOptionalAroundSigns)
{
  EXPECT_TRUE(answers("  (a=1)and(b!=2)\n\tor not(c>=3)  ", {{"a", "1"}, {"b", "1"}}));
}

TEST(QueryExpressionTest, QuotedTextHoldsAnythingAndDoublesItsQuote)
{
  EXPECT_TRUE(answers("a = 'it''s'", {{"a", "it's"}}));
  EXPECT_TRUE(answers("a = \"say \"\"hi\"\"\"", {{"a", "say \"hi\""}}));
  EXPECT_TRUE(answers("a = \"it's\"", {{"a", "it's"}}));
  EXPECT_TRUE(answers("a = \"C:\\temp\\\"", {{"a", "C:\\temp\\"}}));
  EXPECT_TRUE(answers("\"free space\" > 1", {{"free space", "2"}}));
  EXPECT_TRUE(answers("'and' = 'or'", {{"and", "or"}}));
  EXPECT_TRUE(answers("a = ''", {{"a", ""}}));
  EXPECT_TRUE(answers("a = \xC3\xA4", {{"a", "\xC3\xA4"}}));
}

TEST(QueryExpressionTest, AnAbsentAttributeAnswersNoComparison)
{
  for (char const* query : {"a = 1", "a != 1", "a < 1", "a > 1", "a like *"})
    EXPECT_FALSE(answers(query, {})) << query;
  EXPECT_TRUE(answers("not a = 1", {}));
}

TEST(QueryExpressionTest, AMistakeIsReportedWithItsPlaceAndWhatWasExpected)
{
  std::pair<char const*, char const*> const mistakes[] = {
      {"size", "line 1, column 5: expected one of = != < <= > >= like"},
      {"size >", "line 1, column 7: expected a value"},
      {"size > and", "line 1, column 8: expected a value"},
      {"size ! 5", "line 1, column 6: expected one of = != < <= > >= like"},
      {"= 5", "line 1, column 1: expected a comparison, \"not\" or \"(\""},
      {"a=1 and", "line 1, column 8: expected a comparison, \"not\" or \"(\""},
      {"a=1 or\n or b=2", "line 2, column 2: expected a comparison, \"not\" or \"(\""},
      {"not", "line 1, column 4: expected a comparison, \"not\" or \"(\""},
      {"(a=1", "line 1, column 5: expected \"and\", \"or\" or \")\""},
      {"()", "line 1, column 2: expected a comparison, \"not\" or \"(\""},
      {"a=1)", "line 1, column 4: expected \"and\", \"or\" or the end"},
      {"a=1 b=2", "line 1, column 5: expected \"and\", \"or\" or the end"},
      {"a=1\nand b=\"x", "line 2, column 9: expected the closing \""},
      {"'a=1", "line 1, column 5: expected the closing '"},
      {"size > 10g",
       "line 1, column 8: expected a number with one of the units B K M G T P KiB MiB GiB TiB PiB "
       "KB MB GB TB PB s m h d w, or a text in quotes"},
  };
  for (auto const& [query, text] : mistakes)
    EXPECT_EQ(text, mistake(query)) << query;
}

TEST(QueryExpressionTest, AnUnknownUnitIsATextForEqualAndInQuotes)
{
  EXPECT_TRUE(answers("host = 4a", {{"host", "4a"}}));
  EXPECT_TRUE(answers("host > '4a'", {{"host", "4b"}}));
  EXPECT_TRUE(answers("version >= 1.2.3", {{"version", "1.2.4"}}));
}

TEST(QueryExpressionTest, NestingIsLimited)
{
  auto const nested = [](std::size_t depth, std::string const& open, std::string const& close)
  {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i)
      text += open;
    text += "a=1";
    for (std::size_t i = 0; i < depth; ++i)
      text += close;
    return text;
  };
  EXPECT_TRUE(answers(nested(64, "(", ")"), {{"a", "1"}}));
  EXPECT_TRUE(answers(nested(64, "not ", ""), {{"a", "1"}}));
  EXPECT_EQ("line 1, column 65: nested more than 64 deep", mistake(nested(65, "(", ")")));
  EXPECT_EQ(OzfQuery::QUERY_TOO_DEEP, parseQuery(nested(65, "(", ")")).result);
  EXPECT_EQ(OzfQuery::QUERY_TOO_DEEP, parseQuery(nested(33, "not (", ")")).result);
  EXPECT_EQ(OzfQuery::QUERY_TOO_DEEP, parseQuery(nested(16000, "(", ")")).result);
}

TEST(QueryExpressionTest, GroupsSideBySideAreNotNested)
{
  std::string text = "(a=1)";
  for (int i = 0; i < 200; ++i)
    text += " and not (b=1)";
  EXPECT_TRUE(answers(text, {{"a", "1"}}));
}

TEST(QueryExpressionTest, ALongChainIsRead)
{
  std::string text = "a=0";
  for (int i = 1; i < 8000; ++i)
    text += " or a=" + std::to_string(i);
  EXPECT_TRUE(answers(text, {{"a", "7999"}}));
  EXPECT_FALSE(answers(text, {{"a", "8000"}}));
}

} // namespace
