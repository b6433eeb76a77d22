#include "scripts/ScriptPayload.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::Scripts;
using testing::HasSubstr;

namespace
{

using FactType = OzfQuery::Type;

// What is wrong with the value as that kind; empty when nothing is.
std::string wrongAs(FactType kind, std::string const& value)
{
  std::string mistake;
  std::vector<ScriptItem> const items{{"a", {{"Fact", FactType::TEXT, value}}}};
  bool const obeys = obeysDescription({{"fact", kind, {}, {}}}, items, mistake);
  EXPECT_EQ(obeys, mistake.empty()) << mistake;
  return mistake;
}

} // namespace

TEST(ScriptPayloadTest, aValueOfAnotherKindThanIsDescribedIsNamed)
{
  for (auto const kind : {FactType::NUMBER, FactType::SIZE, FactType::DURATION})
  {
    EXPECT_EQ(wrongAs(kind, "7"), "");
    EXPECT_EQ(wrongAs(kind, "much"),
              "item 1: the fact Fact is no number, as which it is described: "
              "\"much\"");
  }
  EXPECT_EQ(wrongAs(FactType::BOOLEAN, "false"), "");
  EXPECT_THAT(wrongAs(FactType::BOOLEAN, "1"), HasSubstr("is neither true nor false"));
  EXPECT_EQ(wrongAs(FactType::TIME, "2026-01-01T10:00:00Z"), "");
  EXPECT_THAT(wrongAs(FactType::TIME, "yesterday"), HasSubstr("is no time"));
  EXPECT_EQ(wrongAs(FactType::TEXT, "anything"), "");
}

TEST(ScriptPayloadTest, namesAndValuesAreWrittenSoThatTheyAreReadAsTheyWere)
{
  std::string const text = itemsDocument("a<b", "host&1",
                                         {{"", {{"Size", FactType::NUMBER, "1"}}},
                                          {"\"x\" <&>", {{"Note", FactType::TEXT, "a < b & c"}}}});
  EXPECT_THAT(text, HasSubstr("<DISCOVERED Name=\"host&amp;1\"><ExplorerData Name=\"a&lt;b\">"
                              "<Size>1</Size></ExplorerData></DISCOVERED>"));
  EXPECT_THAT(text, HasSubstr("Name=\"&quot;x&quot; &lt;&amp;&gt;\""));
  EXPECT_THAT(text, HasSubstr("<Note>a &lt; b &amp; c</Note>"));
}

TEST(ScriptPayloadTest, whatIsNotDescribedIsDescribedAsItWasSeen)
{
  auto const query = describeItems({{"Size", FactType::SIZE, "bytes", "How large"}},
                                   {{"a",
                                     {{"size", FactType::NUMBER, "1"},
                                      {"up", FactType::BOOLEAN, "true"},
                                      {"row", FactType::NUMBER, "7"}}},
                                    {"b", {{"Row", FactType::TEXT, "seven"}}}});
  auto const& all = query->attributes();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0].name.str(), "Size");
  EXPECT_EQ(all[0].type, FactType::SIZE);
  EXPECT_EQ(all[0].description.str(), "How large");
  EXPECT_EQ(all[1].name.str(), "up");
  EXPECT_EQ(all[1].type, FactType::BOOLEAN);
  EXPECT_EQ(all[2].name.str(), "row");
  EXPECT_EQ(all[2].type, FactType::TEXT) << "of several kinds";
}
