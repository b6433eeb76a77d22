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
       "KB MB GB TB PB s m h d w %, or a text in quotes"},
  };
  for (auto const& [query, text] : mistakes)
    EXPECT_EQ(text, mistake(query)) << query;
}

TEST(QueryExpressionTest, AnUnknownUnitIsAMistakeWhereverItOrders)
{
  for (char const* sign : {"<", "<=", ">", ">="})
  {
    std::string const query = std::string("size ") + sign + " 10g";
    EXPECT_NE(std::string::npos, mistake(query).find("with one of the units")) << query;
  }
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

TEST(QueryExpressionTest, CalculatesWithNumbersAndUnits)
{
  Values const values{{"used", "8G"},    {"size", "10737418240"}, {"free", "2147483648"},
                      {"my-age", "90m"}, {"free space", "3"},     {"zero", "0"}};
  for (char const* query : {"used / size >= 80%",
                            "used / size = 80%",
                            "used/size > 79%",
                            "used/size*100 = 80",
                            "size - used = free",
                            "size - used - free = 0",
                            "size - (used - free) = 4G",
                            "(size - used) / size <= 0.2",
                            "(used + free) * 2 = 20G",
                            "used + free * 2 > size",
                            "used > size * 0.7",
                            "used > 0.7 * size",
                            "used < (size)",
                            "(used) < size",
                            "free = size - used",
                            "my-age = 1h + 30m",
                            "my-age - 30m = 1h",
                            "'free space' * 2 = 6",
                            "2 * \"free space\" = 6",
                            "size / 2 / 5 = 1G",
                            "((used)) = ((8G))",
                            "-1 * free < -1G",
                            "free - -1 > free",
                            "free + +1 > free",
                            "not used / size > 90% and size / used > 1",
                            "(used / size > 90%) or (used / size < 90%)",
                            "zero * 5 = 0",
                            "used != size + 1"})
    EXPECT_TRUE(answers(query, values)) << query;
  for (char const* query : {"used / size > 80%", "size / used < 1", "used > size * 0.8",
                            "size - used - free > 0", "(used / size > 90%) or (used / size < 10%)"})
    EXPECT_FALSE(answers(query, values)) << query;
}

TEST(QueryExpressionTest, WhatCannotBeCalculatedIsUnequalAndWhatIsAbsentAnswersNothing)
{
  std::string const huge(4000, '9');
  Values const values{{"text", "ext4"}, {"zero", "0"}, {"one", "1"}, {"huge", huge}};
  for (char const* left : {"text + 1", "one / zero", "zero / zero", "huge * huge",
                           "huge * huge - huge * huge", "one / (one - 1)"})
  {
    for (char const* sign : {"=", "<", "<=", ">", ">="})
      EXPECT_FALSE(answers(std::string(left) + ' ' + sign + " 1", values)) << left << sign;
    EXPECT_TRUE(answers(std::string(left) + " != 1", values)) << left;
  }
  for (char const* query : {"absent + 1 != 1", "absent / one < 5", "one != (absent)"})
    EXPECT_FALSE(answers(query, values)) << query;
}

TEST(QueryExpressionTest, AParenthesisInAQuotedNameEndsNoCalculation)
{
  Values const values{{"a)", "2"}};
  EXPECT_TRUE(answers("(\"a)\" + 1) * 2 = 6", values));
  EXPECT_TRUE(answers("('a)' + 1) * 2 = 6", values));
}

TEST(QueryExpressionTest, SignsInValuesAndPatternsAreText)
{
  EXPECT_TRUE(answers("mount = /", {{"mount", "/"}}));
  EXPECT_TRUE(answers("mount > /a and mount < /c", {{"mount", "/b"}}));
  EXPECT_TRUE(answers("path like */x*", {{"path", "a/x/b"}}));
  EXPECT_TRUE(answers("type = a+b", {{"type", "a+b"}}));
  EXPECT_TRUE(answers("(mount = /) and (type != c*)", {{"mount", "/"}, {"type", "x"}}));
}

TEST(QueryExpressionTest, MistakesOfCalculationsHaveTheirPlaces)
{
  std::pair<char const*, char const*> const mistakes[] = {
      {"used /", "line 1, column 7: expected a number, a name or \"(\""},
      {"used / > 1", "line 1, column 8: expected a number, a name or \"(\""},
      {"used / size", "line 1, column 12: expected one of + - * / = != < <= > >="},
      {"used / size like 1", "line 1, column 13: expected one of + - * / = != < <= > >="},
      {"used / size > ", "line 1, column 15: expected a number, a name or \"(\""},
      {"used > (size", "line 1, column 13: expected one of + - * / or \")\""},
      {"used > size *", "line 1, column 14: expected a number, a name or \"(\""},
      {"a like (b)", "line 1, column 8: expected a value"},
      {"a = 1 and used *\n 10g > 1",
       "line 2, column 2: expected a number with one of the units B K M G T P KiB MiB GiB TiB PiB "
       "KB MB GB TB PB s m h d w %, or a text in quotes"},
      {"used > size*0.8",
       "line 1, column 8: expected blanks around what calculates, or a text in quotes"},
      {"mount/point = /", "line 1, column 15: expected a number, a name or \"(\""},
  };
  for (auto const& [query, text] : mistakes)
    EXPECT_EQ(text, mistake(query)) << query;
}

TEST(QueryExpressionTest, NamesAreToldWithTheirPlaces)
{
  auto const names = namesIn(parseQuery("a = 1 and\n(b + 2) / 'c d' > e").expression);
  ASSERT_EQ(names.size(), 4U);
  std::string told;
  for (auto const& each : names)
    told += each.name + ' ' + std::to_string(each.place.line) + ':' +
            std::to_string(each.place.column) + (each.calculated ? " c, " : ", ");
  EXPECT_EQ(told, "a 1:1, b 2:2 c, c d 2:11 c, e 2:19 c, ");
}

TEST(QueryExpressionTest, CalculationsAreNestedAsLittleAsComparisons)
{
  auto const nested = [](std::size_t depth)
  { return std::string(depth, '(') + "a + 1" + std::string(depth, ')') + " = 2"; };
  EXPECT_TRUE(answers(nested(64), {{"a", "1"}}));
  EXPECT_EQ("line 1, column 65: nested more than 64 deep", mistake(nested(65)));
  EXPECT_EQ(OzfQuery::QUERY_TOO_DEEP, parseQuery(nested(16000)).result);
  EXPECT_EQ(OzfQuery::QUERY_TOO_DEEP, parseQuery("a = " + nested(16000)).result);
  std::string chain = "a";
  for (int i = 0; i < 16000; ++i)
    chain += " + 1";
  EXPECT_TRUE(answers(chain + " = 16001", {{"a", "1"}}));
}

} // namespace
