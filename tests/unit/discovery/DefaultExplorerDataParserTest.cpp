#include "discovery/DefaultExplorerDataParser.h"

#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoAttributes.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

// A document whose root is one ExplorerData element, read by the parser.
class Document : public XmlDocumentInterface
{
public:
  XmlObjParseContext* getObjParseContext(XMLCh const* rootTag) override
  {
    return m_parser->getParseContext("SomeExplorer", rootTag, nullptr);
  }
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override
  {
    // The root's own start tag opens the context and is nothing to capture.
    if (std::exchange(m_atRoot, false))
      return 1;
    return m_parser->xmlStartElement(context, name, attributes);
  }
  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override
  {
    return m_parser->xmlCharacters(context, chars, length);
  }
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    int const result = m_parser->xmlEndElement(context, name);
    if (result == 0)
      m_data.reset(m_parser->getExplorerData(context));
    return result;
  }

  ExplorerData* data() const { return m_data.get(); }

private:
  AutoDereference<DefaultExplorerDataParser> m_parser{new DefaultExplorerDataParser};
  AutoDereference<ExplorerData> m_data;
  bool m_atRoot = true;
};

std::string capture(std::string const& content, XmlStr::Encoding encoding = XmlStr::UTF_8)
{
  Document document;
  EXPECT_TRUE(
      document.parseBuffer("<ExplorerData Name=\"SomeExplorer\">" + content + "</ExplorerData>"))
      << document.lastError();
  if (document.data() == nullptr)
  {
    ADD_FAILURE() << "the end of the element was not seen";
    return {};
  }
  EXPECT_TRUE(document.data()->isParsed());
  std::ostringstream os;
  EXPECT_EQ(&document.data()->writeXml(os, encoding), &os);
  return os.str();
}

} // namespace

TEST(DefaultExplorerDataParserTest, HasTheNameOfTheDefaultParser)
{
  AutoDereference<DefaultExplorerDataParser> const parser(new DefaultExplorerDataParser);
  EXPECT_STREQ(parser->getExplorerParserName(), "DefaultExplorerParser");
}

TEST(DefaultExplorerDataParserTest, CapturesTextEscapedAndWithoutTags)
{
  EXPECT_EQ(capture("a &lt; b &amp; c"), "a &lt; b &amp; c");
}

TEST(DefaultExplorerDataParserTest, CapturesNothingOfAnEmptyElement) { EXPECT_EQ(capture(""), ""); }

TEST(DefaultExplorerDataParserTest, QuotesTheNamesOfAttributesToo)
{
  EXPECT_EQ(capture("<e a=\"1\" b=\"x\"></e>"), "<e \"a\"=\"1\" \"b\"=\"x\"></e>");
}

TEST(DefaultExplorerDataParserTest, CapturesNestedElementsWithTheTextAroundThem)
{
  EXPECT_EQ(capture("x<a>y<b>z</b>1</a>2<c/>3"), "x<a>y<b>z</b>1</a>2<c></c>3");
}

TEST(DefaultExplorerDataParserTest, CapturesAnInnerElementOfTheSameName)
{
  EXPECT_EQ(capture("a<ExplorerData Name=\"n\">b</ExplorerData>c"),
            "a<ExplorerData \"Name\"=\"n\">b</ExplorerData>c");
}

TEST(DefaultExplorerDataParserTest, NamesAndValuesMayBeOfAnyAlphabet)
{
  EXPECT_EQ(capture("<gr\xC3\xB6\xC3\x9F"
                    "e ma\xC3\x9F=\"\xE2\x82\xAC \xF0\x9F\x98\x80\">\xC3\xA4</gr\xC3\xB6\xC3\x9F"
                    "e>"),
            "<gr\xC3\xB6\xC3\x9F"
            "e \"ma\xC3\x9F\"=\"\xE2\x82\xAC \xF0\x9F\x98\x80\">\xC3\xA4</gr\xC3\xB6\xC3\x9F"
            "e>");
}

// The text is put together in a buffer of a fixed size.
TEST(DefaultExplorerDataParserTest, PiecesOfEverySizeStayInOrder)
{
  for (std::size_t const size : {1, 380, 760, 765, 766, 767, 768, 769, 770, 5000})
    for (std::string const& strange : {std::string(), std::string("\xC3\xA4")})
    {
      std::string const text = std::string(size, 't') + strange;
      std::string const name = std::string(size, 'n') + strange;
      std::string const value = std::string(size, 'v') + strange;
      EXPECT_EQ(capture(text + "<" + name + " " + name + "='" + value + "'>" + text + "&amp;" +
                        text + "</" + name + "><a>" + text + "</a>"),
                text + "<" + name + " \"" + name + "\"=\"" + value + "\">" + text + "&amp;" + text +
                    "</" + name + "><a>" + text + "</a>");
    }
}

TEST(DefaultExplorerDataParserTest, AppendsAttributeValuesAsTheParserGivesThem)
{
  EXPECT_EQ(capture("<e a=\"1 &lt; 2\"></e>"), "<e \"a\"=\"1 < 2\"></e>");
}

TEST(DefaultExplorerDataParserTest, WritesTheSameInEveryEncoding)
{
  EXPECT_EQ(capture("\xc3\xa9", XmlStr::US_ASCII), "\xc3\xa9");
}

TEST(DefaultExplorerDataParserTest, KeepsTheNameOfTheExplorer)
{
  AutoDereference<DefaultExplorerDataParser> const parser(new DefaultExplorerDataParser);
  std::unique_ptr<XmlObjParseContext> const context(
      parser->getParseContext("MyExplorer", u"ExplorerData", nullptr));
  AutoDereference<ExplorerData> const data(parser->getExplorerData(context.get()));
  auto const* const own = dynamic_cast<DefaultExplorerData const*>(data.get());
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(own->getExplorerName().str(), "MyExplorer");
  EXPECT_EQ(data->referenceCount(), 2);
}

TEST(DefaultExplorerDataParserTest, DataOutlivesTheContext)
{
  AutoDereference<DefaultExplorerDataParser> const parser(new DefaultExplorerDataParser);
  std::unique_ptr<XmlObjParseContext> context(
      parser->getParseContext("MyExplorer", u"ExplorerData", nullptr));
  AutoDereference<ExplorerData> const data(parser->getExplorerData(context.get()));
  context.reset();
  EXPECT_EQ(data->referenceCount(), 1);
}

TEST(DefaultExplorerDataParserTest, ForeignContextFailsAnAssertion)
{
  LogCapture log;
  AutoDereference<DefaultExplorerDataParser> const parser(new DefaultExplorerDataParser);
  XmlObjParseContext context(u"ExplorerData", nullptr);
  tqtest::NoAttributes none;
  EXPECT_THROW(parser->getExplorerData(&context), AssertionFailure);
  EXPECT_THROW(parser->xmlStartElement(&context, u"e", none), AssertionFailure);
  EXPECT_THROW(parser->xmlEndElement(&context, u"ExplorerData"), AssertionFailure);
  for (char const* const operation : {"getExplorerData", "xmlStartElement", "xmlEndElement"})
    EXPECT_EQ(1, log.count(1, std::string("DefaultExplorerDataParser::") + operation,
                           "Assertion failed: NULL != parserContext"))
        << log.text();
}

TEST(DefaultExplorerDataParserTest, WritingTheParserFailsAnAssertion)
{
  LogCapture log;
  AutoDereference<DefaultExplorerDataParser> const parser(new DefaultExplorerDataParser);
  std::ostringstream os;
  EXPECT_THROW(parser->writeXml(os, XmlStr::UTF_8), AssertionFailure);
  EXPECT_NE(log.text().find("SHOULD_NOT_GET_HERE"), std::string::npos);
}
