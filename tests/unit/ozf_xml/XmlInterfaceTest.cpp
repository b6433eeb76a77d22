#include "ozf/xml/XmlInterface.h"

#include "RecordingDocument.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Quillon::Tessarine::Ozf;

namespace
{

class AttributeReader : public XmlDocumentInterface
{
public:
  std::optional<OzfString> name;
  std::optional<OzfString> empty;
  std::optional<OzfString> otherCase;
  std::optional<OzfString> missing;
  std::string taken = "before";
  std::string kept = "before";

  int xmlStartElement(XmlObjParseContext*, XMLCh const*, AttributeList& attributes) override
  {
    name = attribute(attributes, "Name");
    empty = attribute(attributes, "Empty");
    otherCase = attribute(attributes, "name");
    missing = attribute(attributes, "Missing");
    EXPECT_TRUE(getAttribute(attributes, "Name", taken));
    EXPECT_FALSE(getAttribute(attributes, "Missing", kept));
    return 1;
  }
};

} // namespace

TEST(XmlInterface, AnAttributeIsFoundByItsExactName)
{
  AttributeReader reader;
  ASSERT_TRUE(reader.parseBuffer("<a x='1' Name='A &amp; \xC3\xA4 &#10;' Empty=''/>"));
  EXPECT_EQ(OzfString("A & \xC3\xA4 \n"), reader.name);
  EXPECT_EQ(OzfString(), reader.empty);
  EXPECT_EQ(std::nullopt, reader.otherCase);
  EXPECT_EQ(std::nullopt, reader.missing);
  EXPECT_EQ("A & \xC3\xA4 \n", reader.taken);
  EXPECT_EQ("before", reader.kept);
}

TEST(XmlInterface, ByDefaultTheContextCollectsTheTextAndItsEndTagCompletes)
{
  XmlInterface object;
  XmlObjParseContext context(u"a", nullptr);
  EXPECT_NE(0, object.xmlCharacters(&context, u"text", 4));
  EXPECT_EQ(OzfString("text"), context.text());
  EXPECT_NE(0, object.xmlEndElement(&context, u"b"));
  EXPECT_EQ(0, object.xmlEndElement(&context, u"a"));
}

TEST(XmlInterface, ByDefaultNothingIsWritten)
{
  std::ostringstream os;
  XmlInterface const object;
  EXPECT_EQ(&os, &object.writeXml(os, XmlStr::UTF_8));
  EXPECT_EQ("", os.str());
}
