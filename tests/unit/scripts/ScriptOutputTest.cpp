#include "scripts/ScriptOutput.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::Scripts;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

using Type = OzfQuery::Type;

std::string kindLetter(Type kind)
{
  return kind == Type::NUMBER ? "n" : kind == Type::BOOLEAN ? "b" : "t";
}

// "name:fact=value(kind)" for each fact, or "name:" for an item without any.
std::vector<std::string> readAll(std::string const& output)
{
  std::vector<ScriptItem> items;
  std::string mistake;
  EXPECT_TRUE(parseScriptOutput(output, items, mistake)) << mistake;
  std::vector<std::string> all;
  for (ScriptItem const& item : items)
  {
    if (item.facts.empty())
      all.push_back(item.name + ":");
    for (ScriptFact const& fact : item.facts)
      all.push_back(item.name + ":" + fact.name + "=" + fact.value + "(" + kindLetter(fact.kind) +
                    ")");
  }
  return all;
}

std::string mistakeIn(std::string const& output)
{
  std::vector<ScriptItem> items;
  std::string mistake;
  EXPECT_FALSE(parseScriptOutput(output, items, mistake)) << output.substr(0, 100);
  EXPECT_LT(mistake.size(), 700U);
  return mistake;
}

std::string repeated(std::string const& text, std::size_t times)
{
  std::string all;
  for (std::size_t i = 0; i < times; ++i)
    all += text;
  return all;
}

} // namespace

TEST(ScriptOutputTest, linesMakeOneItem)
{
  EXPECT_THAT(readAll("load=0.5\n\n  Rack = 7 \r\nnote=a = b\nup=true"),
              ElementsAre(":load=0.5(n)", ":Rack=7(n)", ":note=a = b(t)", ":up=true(b)"));
  EXPECT_THAT(readAll("\xEF\xBB\xBF"
                      "a=b"),
              ElementsAre(":a=b(t)"));
}

TEST(ScriptOutputTest, whatIsNoPlainNumberIsAText)
{
  EXPECT_THAT(readAll("a=007\nb=-1\nc=1e3\nd=1.\ne=-\nf=0.25\ng=True\nh=0\nempty=\n"),
              ElementsAre(":a=007(t)", ":b=-1(n)", ":c=1e3(t)", ":d=1.(t)", ":e=-(t)", ":f=0.25(n)",
                          ":g=True(t)", ":h=0(n)"));
}

TEST(ScriptOutputTest, anObjectIsAnItemWhoseValuesKeepTheirKind)
{
  EXPECT_THAT(readAll(R"({"a": 1, "b": "1", "c": true, "d": null, "e": "", "f": -2.50, "g": 1e3,
                          "h": 18446744073709551615, "i": 18446744073709551616, "j": 25e-2})"),
              ElementsAre(":a=1(n)", ":b=1(t)", ":c=true(b)", ":f=-2.50(n)", ":g=1000(n)",
                          ":h=18446744073709551615(n)", ":i=18446744073709551616(n)",
                          ":j=0.25(n)"));
  EXPECT_THAT(readAll("{}"), ElementsAre(":"));
  EXPECT_THAT(readAll(R"({"name": "one", "a": 1})"), ElementsAre("one:a=1(n)"));
}

TEST(ScriptOutputTest, anArrayHasAnItemForEachObject)
{
  EXPECT_THAT(readAll(R"([{"name": "x", "a": 1}, {"b": false, "name": 7}, {"name": "x"}])"),
              ElementsAre("x:a=1(n)", "7:b=false(b)", "x:"));
  EXPECT_THAT(readAll(" \n [] "), IsEmpty());
}

TEST(ScriptOutputTest, nestedValuesGetDottedKeys)
{
  EXPECT_THAT(
      readAll(R"({"a": {"b": {"c": 1}, "name": "n"}, "d": [1, [true], {"e": "f"}], "g": []})"),
      ElementsAre(":a.b.c=1(n)", ":a.name=n(t)", ":d.0=1(n)", ":d.1.0=true(b)", ":d.2.e=f(t)"));
}

TEST(ScriptOutputTest, mistakesHaveTheirPlace)
{
  EXPECT_EQ(mistakeIn(""), "nothing was printed");
  EXPECT_EQ(mistakeIn(" \n"), "nothing was printed");
  EXPECT_THAT(mistakeIn("a=1\nhello\n"), HasSubstr("line 2: there is no '='"));
  EXPECT_THAT(mistakeIn("a=1\n=2"), HasSubstr("line 2: \"\" is no name of a fact"));
  EXPECT_THAT(mistakeIn("a b=1"), HasSubstr("line 1: \"a b\" is no name of a fact"));
  EXPECT_THAT(mistakeIn("size=1\nSize=2"), HasSubstr("line 2: the fact Size is there twice"));
  EXPECT_THAT(mistakeIn("a=1\nb=\xC3"), HasSubstr("line 2, column 3: a byte that is not UTF-8"));
  EXPECT_THAT(mistakeIn("{\"a\": \"\xC3\"}"), HasSubstr("line 1, column 8: a byte"));
  EXPECT_THAT(mistakeIn("{\"a\": 1,\n \"b\" x}"), HasSubstr("line 2, column 6: no valid JSON"));
  EXPECT_THAT(mistakeIn("{\"a\": 1} x"), HasSubstr("line 1, column 10: no valid JSON"));
  EXPECT_THAT(mistakeIn("{\"a\": 1"), HasSubstr("no valid JSON"));
  EXPECT_THAT(mistakeIn("{\"a\": 1e999}"), HasSubstr("no valid JSON"));
  EXPECT_THAT(mistakeIn("{\"a\": \"" + repeated("x", 100000)), HasSubstr("no valid JSON"));
  EXPECT_THAT(mistakeIn("[{\"name\": \"x\"},\n{\"a\": 1}]"),
              HasSubstr("line 2, column 8: the item that ends here has no \"name\""));
  EXPECT_THAT(mistakeIn("[1]"), HasSubstr("a number where an item was expected"));
  EXPECT_THAT(mistakeIn("[null]"), HasSubstr("null where an item was expected"));
  EXPECT_THAT(mistakeIn("[[]]"), HasSubstr("an array where an item was expected"));
  EXPECT_THAT(mistakeIn(R"({"name": [1]})"), HasSubstr("\"name\" is neither"));
  EXPECT_THAT(mistakeIn(R"([{"name": null}])"), HasSubstr("\"name\" is neither"));
  EXPECT_THAT(mistakeIn(R"({"a": 1, "A": 2})"), HasSubstr("the fact A is there twice"));
  EXPECT_THAT(mistakeIn(R"({"a.b": 1, "a": {"b": 2}})"), HasSubstr("the fact a.b is there twice"));
  EXPECT_THAT(mistakeIn(R"({"a>b": 1})"), HasSubstr("\"a>b\" is no name of a fact"));
}

TEST(ScriptOutputTest, nothingIsTakenBeyondTheBounds)
{
  auto const item = [](std::size_t number) { return "{\"name\":" + std::to_string(number) + "}"; };
  auto const items = [&item](std::size_t count)
  {
    std::string text = "[" + item(0);
    for (std::size_t i = 1; i < count; ++i)
      text += "," + item(i);
    return text + "]";
  };
  EXPECT_EQ(readAll(items(OutputBounds::ITEMS)).size(), OutputBounds::ITEMS);
  EXPECT_THAT(mistakeIn(items(OutputBounds::ITEMS + 1)), HasSubstr("more than 10000 items"));

  auto const facts = [](std::size_t count)
  {
    std::string text;
    for (std::size_t i = 0; i < count; ++i)
      text += "f" + std::to_string(i) + "=1\n";
    return text;
  };
  EXPECT_EQ(readAll(facts(OutputBounds::FACTS)).size(), OutputBounds::FACTS);
  EXPECT_THAT(mistakeIn(facts(OutputBounds::FACTS + 1)),
              HasSubstr("line 1001: the item has more than 1000 facts"));

  EXPECT_EQ(readAll("a=" + std::string(OutputBounds::BYTES - 2, 'x')).size(), 1U);
  EXPECT_EQ(mistakeIn("a=" + std::string(OutputBounds::BYTES - 1, 'x')),
            "more than 1 MiB was printed");
  EXPECT_THAT(mistakeIn(std::string(OutputBounds::NAME + 1, 'n') + "=1"),
              HasSubstr("has more than 200 bytes"));

  auto const nested = [](std::size_t depth)
  { return repeated("{\"a\":", depth) + "1" + repeated("}", depth); };
  EXPECT_EQ(readAll(nested(OutputBounds::NESTING)).size(), 1U);
  EXPECT_THAT(mistakeIn(nested(OutputBounds::NESTING + 1)), HasSubstr("nested more than 32 deep"));
  EXPECT_THAT(mistakeIn(repeated("[", OutputBounds::BYTES)), HasSubstr("where an item"));
  EXPECT_THAT(mistakeIn("{\"a\":" + repeated("[", 500000)), HasSubstr("nested more than"));
}

TEST(ScriptOutputTest, namesThatAreRepeatedCannotMakeMuchOfLittle)
{
  std::string const key(190, 'k');
  std::string text = "[{\"name\":1}";
  while (text.size() < OutputBounds::BYTES - 3000)
    text += ",{\"name\":1,\"" + key + "\":[1" + repeated(",1", 999) + "]}";
  EXPECT_THAT(mistakeIn(text + "]"), HasSubstr("have more than 8 MiB"));
}
