#include "ozf/xml/OzfQuery.h"

#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoAttributes.h"
#include "tests/unit/ozf_xml/ObjectDocument.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using QueryDocument = ObjectDocument<OzfQuery>;
using Type = OzfQuery::Type;

OzfQuery::Lookup constant(std::string const& value)
{
  return [value](std::string_view) { return std::optional(value); };
}

std::string names(OzfQuery const& query)
{
  std::string all;
  for (auto const& attribute : query.attributes())
    all += attribute.name.str() + " ";
  return all;
}

TEST(OzfQueryTest, AnEmptyQueryAsksForEverything)
{
  OzfQuery query;
  EXPECT_TRUE(query.evaluate([](std::string_view) { return std::nullopt; }));
  EXPECT_EQ(0, query.setQuery(" \t\n"));
  EXPECT_TRUE(query.evaluate([](std::string_view) { return std::nullopt; }));
}

TEST(OzfQueryTest, TheExpressionSetIsTheOneEvaluated)
{
  OzfQuery query;
  EXPECT_EQ(0, query.setQuery("a = 1"));
  EXPECT_EQ("a = 1", query.getQuery());
  EXPECT_EQ("", query.lastError());
  EXPECT_TRUE(query.evaluate(constant("1")));
  EXPECT_FALSE(query.evaluate(constant("2")));
  EXPECT_EQ(0, query.setQuery(""));
  EXPECT_TRUE(query.evaluate(constant("2")));
}

TEST(OzfQueryTest, ARefusedTextLeavesTheExpressionAsItWas)
{
  OzfQuery query;
  ASSERT_EQ(0, query.setQuery("a = 1"));
  EXPECT_EQ(OzfQuery::QUERY_SYNTAX, query.setQuery("a ="));
  EXPECT_EQ("line 1, column 4: expected a value", query.lastError());
  EXPECT_EQ("a = 1", query.getQuery());
  EXPECT_FALSE(query.evaluate(constant("2")));
  EXPECT_EQ(0, query.setQuery("a = 2"));
  EXPECT_EQ("", query.lastError());
}

TEST(OzfQueryTest, TheLengthIsLimited)
{
  OzfQuery query;
  std::string text = "a = '" + std::string(OzfQuery::MAX_TEXT - 6, 'x') + "'";
  ASSERT_EQ(OzfQuery::MAX_TEXT, text.size());
  EXPECT_EQ(0, query.setQuery(text)) << query.lastError();
  EXPECT_EQ(OzfQuery::QUERY_TOO_LONG, query.setQuery(text + " "));
  EXPECT_EQ("the query has 65537 bytes; expected at most 65536", query.lastError());
  EXPECT_EQ(OzfQuery::QUERY_TOO_LONG, query.setQuery(std::string(1 << 20, ' ')));
}

TEST(OzfQueryTest, TheNestingIsLimited)
{
  OzfQuery query;
  EXPECT_EQ(OzfQuery::QUERY_TOO_DEEP, query.setQuery(std::string(65536, '(')));
}

TEST(OzfQueryTest, TheLookupIsGivenTheNameAsWritten)
{
  OzfQuery query;
  ASSERT_EQ(0, query.setQuery("\"Free Space\" > 1"));
  std::string asked;
  query.evaluate(
      [&asked](std::string_view name)
      {
        asked = name;
        return std::nullopt;
      });
  EXPECT_EQ("Free Space", asked);
}

TEST(OzfQueryTest, MergingIsTheUnionAndTheFirstDescriptionStays)
{
  OzfQuery query;
  query.addAttribute({"size", Type::SIZE, "B", "mine"});
  OzfQuery other;
  other.addAttribute({"type", Type::TEXT, "", ""});
  other.addAttribute({"size", Type::NUMBER, "GB", "theirs"});
  other.addAttribute({"age", Type::DURATION, "s", ""});
  query.merge(other);
  EXPECT_EQ("size type age ", names(query));
  EXPECT_EQ("mine", query.findAttribute("size")->description);
  EXPECT_EQ(Type::SIZE, query.findAttribute("size")->type);
  EXPECT_EQ(Type::DURATION, query.findAttribute("age")->type);
  EXPECT_EQ(nullptr, query.findAttribute("AGE"));
  query.merge(query);
  query.merge(other);
  EXPECT_EQ("size type age ", names(query));
}

TEST(OzfQueryTest, MergingLeavesTheExpressionAlone)
{
  OzfQuery query;
  ASSERT_EQ(0, query.setQuery("a = 1"));
  OzfQuery other;
  ASSERT_EQ(0, other.setQuery("a = 2"));
  query.merge(other);
  EXPECT_TRUE(query.evaluate(constant("1")));
}

TEST(OzfQueryTest, AnAttributeWithoutANameIsRefused)
{
  OzfQuery query;
  EXPECT_FALSE(query.addAttribute({"", Type::TEXT, "", ""}));
  EXPECT_TRUE(query.attributes().empty());
}

TEST(OzfQueryTest, WritesTheDescription)
{
  OzfQuery query;
  query.addAttribute({"size", Type::SIZE, "B", "bytes \"used\" & more"});
  query.addAttribute({"type", Type::TEXT, "", ""});
  EXPECT_EQ("<QueryDescription><Attribute Name=\"size\" Type=\"size\" Unit=\"B\" "
            "Description=\"bytes &quot;used&quot; &amp; more\"/>"
            "<Attribute Name=\"type\" Type=\"text\"/></QueryDescription>",
            xmlOf(query));
  EXPECT_EQ("<QueryDescription></QueryDescription>", xmlOf(OzfQuery()));
}

TEST(OzfQueryTest, ReadsBackWhatItWroteForEveryType)
{
  OzfQuery query;
  for (auto const type :
       {Type::TEXT, Type::NUMBER, Type::SIZE, Type::DURATION, Type::TIME, Type::BOOLEAN})
    query.addAttribute({"n<" + std::to_string(static_cast<int>(type)), type, "\xC2\xB5s", "a\nb"});
  QueryDocument const read(xmlOf(query));
  ASSERT_TRUE(read.parsed) << read.lastError();
  EXPECT_TRUE(read.complete);
  ASSERT_EQ(6U, read.object->attributes().size());
  for (std::size_t i = 0; i < 6; ++i)
  {
    auto const& was = query.attributes()[i];
    auto const& is = read.object->attributes()[i];
    EXPECT_EQ(was.name, is.name);
    EXPECT_EQ(was.type, is.type);
    EXPECT_EQ(was.unit, is.unit);
    EXPECT_EQ(was.description, is.description);
  }
}

TEST(OzfQueryTest, AnElementOfAnotherNameMakesNoQuery)
{
  EXPECT_FALSE(QueryDocument("<querydescription/>").object);
  EXPECT_FALSE(QueryDocument("<Attribute Name=\"a\"/>").object);
}

TEST(OzfQueryTest, ReadsPastWhatItDoesNotKnow)
{
  QueryDocument const read(
      "<QueryDescription New=\"1\"> text <X><Attribute Name=\"inX\"/></X><Attribute/>"
      "<Attribute Name=\"a\" Type=\"colour\"><Attribute Name=\"inner\"/></Attribute>"
      "<QueryDescription><Attribute Name=\"nested\"/></QueryDescription>"
      "<Attribute Name=\"b\" Type=\"time\"/><Attribute Name=\"b\" Type=\"size\"/>"
      "</QueryDescription>");
  ASSERT_TRUE(read.parsed) << read.lastError();
  EXPECT_TRUE(read.complete);
  EXPECT_EQ(0, read.afterEnd);
  EXPECT_EQ("a b ", names(*read.object));
  EXPECT_EQ(Type::TEXT, read.object->findAttribute("a")->type);
  EXPECT_EQ(Type::TIME, read.object->findAttribute("b")->type);
}

TEST(OzfQueryTest, ManyAttributesAreReadInLittleTime)
{
  std::string text = "<QueryDescription>";
  for (int i = 0; i < 100000; ++i)
    text += "<Attribute Name=\"a" + std::to_string(i) + "\"/>";
  QueryDocument const read(text + "</QueryDescription>");
  ASSERT_TRUE(read.parsed) << read.lastError();
  EXPECT_EQ(100000U, read.object->attributes().size());
}

TEST(OzfQueryTest, ContextsOfAnotherKindFailTheAssertion)
{
  OzfQuery query;
  auto const name = OzfString("Attribute").toUtf16();
  XmlObjParseContext other(name.c_str(), nullptr);
  tqtest::NoAttributes none;
  LogCapture log;
  EXPECT_THROW(query.xmlStartElement(&other, name.c_str(), none), AssertionFailure);
  EXPECT_THROW(query.xmlEndElement(&other, name.c_str()), AssertionFailure);
  for (char const* operation : {"OzfQuery::xmlStartElement", "OzfQuery::xmlEndElement"})
    EXPECT_EQ(1, log.count(1, operation, "Assertion failed: context")) << operation << log.text();
}

} // namespace
