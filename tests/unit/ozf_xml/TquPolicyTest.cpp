#include "ozf/xml/TquPolicy.h"

#include "tests/unit/ozf_xml/ObjectDocument.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using PolicyDocument = ObjectDocument<TquPolicy>;
using Attributes = TquPolicy::Attributes;

TEST(TquPolicyTest, WritesNameTypeAndAttributesInOrder)
{
  TquPolicy policy("nightly", "full");
  policy.addAttribute("retention", "30");
  policy.addAttribute("client", "a");
  EXPECT_EQ("<TQUPolicy Name=\"nightly\" Type=\"full\"><Attribute Name=\"retention\">30</Attribute>"
            "<Attribute Name=\"client\">a</Attribute></TQUPolicy>",
            xmlOf(policy));
}

TEST(TquPolicyTest, EscapesForTheEncodingAskedFor)
{
  TquPolicy policy("<\xC3\xA4>", "\"t\"");
  policy.addAttribute("a&b", "1<2");
  EXPECT_EQ("<TQUPolicy Name=\"&lt;&#xE4;&gt;\" Type=\"&quot;t&quot;\">"
            "<Attribute Name=\"a&amp;b\">1&lt;2</Attribute></TQUPolicy>",
            xmlOf(policy, XmlStr::US_ASCII));
}

TEST(TquPolicyTest, ReadsBackWhatItWrote)
{
  TquPolicy policy("a \"b\"\n<c>", "\xE2\x82\xAC");
  policy.addAttribute("k", " spaces kept ");
  policy.addAttribute("k", "twice");
  policy.addAttribute("", "");
  PolicyDocument const read(xmlOf(policy));
  ASSERT_TRUE(read.parsed) << read.lastError();
  EXPECT_TRUE(read.complete);
  EXPECT_EQ(policy.name(), read.object->name());
  EXPECT_EQ(policy.type(), read.object->type());
  EXPECT_EQ(policy.attributes(), read.object->attributes());
}

TEST(TquPolicyTest, MissingAttributesReadAsEmpty)
{
  PolicyDocument const read("<TQUPolicy><Attribute>v</Attribute></TQUPolicy>");
  ASSERT_TRUE(read.parsed);
  EXPECT_EQ("", read.object->name());
  EXPECT_EQ("", read.object->type());
  EXPECT_EQ((Attributes{{"", "v"}}), read.object->attributes());
}

TEST(TquPolicyTest, SkipsUnknownElementsWithEverythingInThem)
{
  PolicyDocument const read(
      "<TQUPolicy Name=\"n\"> text <X><Attribute Name=\"in\">no</Attribute></X>"
      "<Attribute Name=\"k\">a<Y>b<Attribute Name=\"deep\">c</Attribute></Y>d"
      "</Attribute><TQUPolicy Name=\"inner\"></TQUPolicy></TQUPolicy>");
  ASSERT_TRUE(read.parsed) << read.lastError();
  EXPECT_TRUE(read.complete);
  EXPECT_EQ(0, read.afterEnd);
  EXPECT_EQ("n", read.object->name());
  EXPECT_EQ((Attributes{{"k", "ad"}}), read.object->attributes());
}

TEST(TquPolicyTest, TakesLongValues)
{
  std::string const value(1 << 20, 'x');
  PolicyDocument const read("<TQUPolicy Name=\"" + value + "\"><Attribute Name=\"k\">" + value +
                            "</Attribute></TQUPolicy>");
  ASSERT_TRUE(read.parsed);
  EXPECT_EQ(value, read.object->name().str());
  EXPECT_EQ(value, read.object->attributes().at(0).second.str());
}

} // namespace
