// Documents in the form of the product's own have a way past the parser. That
// must show in nothing: the same document from an input source, which the parser
// reads, is what each is compared with.

#include "RecordingDocument.h"
#include "ozf/xml/PlainDocument.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>
#include <xercesc/framework/MemBufInputSource.hpp>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string const PROLOG = R"(<?xml version="1.0" encoding="UTF-8"?>)";
std::string const RECORD = "<r><a N=\"x &amp; y\" T=\"2\"><s C=\"13\">it's\n &lt;so&gt;</s></a>\n"
                           "<b N=\"\"></b><c/>\n<d N=\"1\">\t12</d></r>";
std::string const LOOSE = "<r><a N=\"x\" T='2'>it's &#65;</a>\r\n<d N = \"1\"\tM='>'\n>12</d ></r>";

// How the parser reads a document.
struct Parsed : RecordingDocument
{
  explicit Parsed(std::string const& text)
  {
    initializeXml();
    xercesc::MemBufInputSource const source(reinterpret_cast<XMLByte const*>(text.data()),
                                            text.size(), "text");
    accepted = parse(source);
  }

  bool accepted;
};

void expectGood()
{
  RecordingDocument document;
  EXPECT_TRUE(document.parseBuffer(PROLOG + "<a>\n<b c=\"1\">x</b></a>")) << document.lastError();
  EXPECT_EQ("(a)\n(b c=1)x/b:1/a:0", document.events);
}

void expectAsParsed(std::string const& rest)
{
  std::string const text = PROLOG + rest;
  Parsed const parsed(text);
  expectGood();
  RecordingDocument document;
  EXPECT_EQ(parsed.accepted, document.parseBuffer(std::string_view(text))) << rest;
  EXPECT_EQ(parsed.events, document.events) << rest;
  EXPECT_EQ(parsed.lastError(), document.lastError()) << rest;
  expectGood();
}

std::string withAttributes(int count)
{
  std::string text = "<a";
  for (int i = 0; i < count; ++i)
    text += " a" + std::to_string(i) + "=\"" + std::to_string(i) + '"';
  return text + "/>";
}

std::string nested(int depth)
{
  std::string text;
  for (int i = 0; i < depth; ++i)
    text += "<a>\n";
  for (int i = 0; i < depth; ++i)
    text += "</a>";
  return text;
}

} // namespace

TEST(PlainDocument, WhatTheProductWritesIsPlain)
{
  PlainDocument document;
  EXPECT_TRUE(document.read(RECORD));
  EXPECT_TRUE(document.read(
      "<DiscoveryData><DiscoveryAuthority Name=\"hostA\" Type=\"2\"><STATUSMSG Code=\"13\" "
      "Severity=\"1\">one disk didn&apos;t answer:\n\t&lt;none&gt;</STATUSMSG></DiscoveryAuthority>"
      "<DiscoverySubject Name=\"R&amp;D &quot;east&quot;\"></DiscoverySubject></DiscoveryData>"));
  EXPECT_TRUE(document.read("<a/>"));
  EXPECT_TRUE(document.read("<a>" + std::string(PlainDocument::LARGEST - 7, 'x') + "</a>"));
}

TEST(PlainDocument, WhatIsNotClearlyPlainIsLeftToTheParser)
{
  PlainDocument document;
  for (char const* text : {"",
                           "<",
                           "<a",
                           "<a>",
                           "<a></a",
                           "</a>",
                           "x",
                           "x<a/>",
                           "<a/>x",
                           "<a/> ",
                           "\n<a/>",
                           "<a/><b/>",
                           "<a></b>",
                           "<a><b></a></b>",
                           "<a></ab>",
                           "<ab></a>",
                           "<a ></a>",
                           "<a></a >",
                           "< a/>",
                           "<a/ >",
                           "<1/>",
                           "<a\nb=\"1\"/>",
                           "<a b='1'/>",
                           "<a  b=\"1\"/>",
                           "<a b = \"1\"/>",
                           "<a b=\"1\"c=\"2\"/>",
                           "<a b=\"1\" b=\"2\"/>",
                           "<a b=\"1\" c=\"2\" b=\"1\"/>",
                           "<a b=\"<\"/>",
                           "<a b=\"\n\"/>",
                           "<a b=\"&#65;\"/>",
                           "<a b=\"&x;\"/>",
                           "<a b/>",
                           "<a b=\"1/>",
                           "<a>></a>",
                           "<a>]]></a>",
                           "<a>&</a>",
                           "<a>&amp</a>",
                           "<a>&#65;</a>",
                           "<a>\r</a>",
                           "<a>\x01</a>",
                           "<a>\x7F</a>",
                           "<a>\xC3\xA4</a>",
                           "<a><!-- c --></a>",
                           "<a><![CDATA[x]]></a>",
                           "<a><?p i?></a>",
                           "<!DOCTYPE a><a/>",
                           "<?xml version=\"1.0\"?><a/>"})
    EXPECT_FALSE(document.read(text)) << text;
  EXPECT_FALSE(document.read(LOOSE));
  EXPECT_FALSE(document.read(std::string_view("<a>\0</a>", 8)));
  EXPECT_FALSE(document.read("<a>" + std::string(PlainDocument::LARGEST - 6, 'x') + "</a>"));
}

TEST(PlainDocument, AttributesAreFoundByNameAndNumber)
{
  struct Asking : xercesc::HandlerBase
  {
    void startElement(XMLCh const* name, AttributeList& attributes) override
    {
      names += narrowName(name) + std::to_string(attributes.getLength());
      if (attributes.getLength() != 2)
        return;
      EXPECT_EQ("2", narrowName(attributes.getValue(u"cd")));
      EXPECT_EQ("2", narrowName(attributes.getValue("cd")));
      EXPECT_EQ("", narrowName(attributes.getValue("b")));
      EXPECT_EQ("CDATA", narrowName(attributes.getType(u"b")));
      EXPECT_EQ("CDATA", narrowName(attributes.getType(XMLSize_t(1))));
      EXPECT_EQ(nullptr, attributes.getValue("c"));
      EXPECT_EQ(nullptr, attributes.getValue(u"cde"));
      EXPECT_EQ(nullptr, attributes.getType(u"x"));
      EXPECT_EQ(nullptr, attributes.getName(2));
      EXPECT_EQ(nullptr, attributes.getValue(XMLSize_t(2)));
      EXPECT_EQ(nullptr, attributes.getType(XMLSize_t(2)));
    }

    std::string names;
  };
  PlainDocument document;
  ASSERT_TRUE(document.read("<a><b b=\"\" cd=\"2\"/><c d=\"\"/></a>"));
  Asking asking;
  document.tell(asking);
  EXPECT_EQ("a0b2c1", asking.names);
}

TEST(PlainDocument, GoodDocumentsAreReadAsParsed)
{
  for (std::string const& rest : {RECORD,
                                  RECORD + "\n",
                                  RECORD + " \t\r\n\n",
                                  std::string("<a/>"),
                                  std::string("<a />"),
                                  std::string("<a b='1'/>"),
                                  std::string("<a></a>"),
                                  std::string("<documents></documents>"),
                                  std::string("<a>!?</a>"),
                                  std::string("<a b='!?'>x!</a>"),
                                  std::string("<a>]] ></a>"),
                                  std::string("<a><![CDATA[<b>]]></a>"),
                                  std::string("<a><!-- c --></a>"),
                                  std::string("<a><?p i?></a>"),
                                  std::string("<a/><!-- c -->"),
                                  std::string("<a/><?p i?>"),
                                  "<a b='" + std::string(16000, 'v') + "'/>",
                                  "<a b='" + std::string(20000, 'v') + "'/>",
                                  withAttributes(16),
                                  withAttributes(17),
                                  nested(XmlDocumentInterface::MAX_DEPTH)})
  {
    RecordingDocument document;
    EXPECT_TRUE(document.parseBuffer(PROLOG + rest)) << rest << ": " << document.lastError();
    expectAsParsed(rest);
  }
}

TEST(PlainDocument, BadDocumentsFailAsParsed)
{
  for (std::string const& rest : {std::string("<a>"),
                                  std::string("<a><b></a>"),
                                  std::string("<a></b>"),
                                  std::string("<a><b>\n</a></b>"),
                                  std::string("</a>"),
                                  std::string("</documents>"),
                                  std::string("</documents><a/>"),
                                  std::string("</documents>\0>", 14),
                                  std::string("<a></documents>"),
                                  std::string("<a/></documents>"),
                                  std::string("<a/><b/>"),
                                  std::string("<a></a><b></b>"),
                                  std::string("<a/>x>"),
                                  std::string("<a/>&amp;>"),
                                  std::string("<a/>\0", 5),
                                  std::string("<a/>\0>", 6),
                                  std::string("<a/>\0<b/>", 9),
                                  std::string("<a>\0</a>", 8),
                                  std::string("<a>&x;</a>"),
                                  std::string("<a>&amp</a>"),
                                  std::string("<a>&</a>"),
                                  std::string("<a>&#0;</a>"),
                                  std::string("<a b='&x;'/>"),
                                  std::string("<a b='1' b='2'/>"),
                                  std::string("<a b='1' c='2' b='3'></a>"),
                                  std::string("<a b='1'c='2'/>"),
                                  std::string("<a b=1/>"),
                                  std::string("<a b/>"),
                                  std::string("<a b='<'/>"),
                                  std::string("<a>]]></a>"),
                                  std::string("<a>\x01</a>"),
                                  std::string("< a/>"),
                                  std::string("<>"),
                                  std::string("<1/>"),
                                  std::string("<a/ >"),
                                  std::string("<a/>><"),
                                  std::string("<a><!x></a>"),
                                  std::string("<a><! ></a>"),
                                  std::string("<!DOCTYPE a><a/>"),
                                  std::string("<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>"),
                                  std::string("<a><!DOCTYPE a></a>"),
                                  std::string("<a/><!DOCTYPE a>"),
                                  PROLOG + "<a/>",
                                  "<a/>" + PROLOG,
                                  "<a>" + PROLOG + "</a>",
                                  RECORD + RECORD,
                                  RECORD + "</r>",
                                  nested(XmlDocumentInterface::MAX_DEPTH + 1)})
  {
    RecordingDocument document;
    EXPECT_FALSE(document.parseBuffer(std::string_view(PROLOG + rest))) << rest;
    expectAsParsed(rest);
  }
}

TEST(PlainDocument, DocumentsThatAreCutOffFailAsParsed)
{
  for (std::string const& record : {RECORD, LOOSE})
    for (std::size_t length = 0; length < record.size(); ++length)
    {
      expectAsParsed(record.substr(0, length));
      expectAsParsed(record.substr(0, length) + ">");
    }
}

TEST(PlainDocument, ChangedDocumentsAreReadAsParsed)
{
  for (std::string const& record : {RECORD, LOOSE})
    for (std::size_t at = 0; at < record.size(); ++at)
    {
      std::string less = record;
      expectAsParsed(less.erase(at, 1));
      for (char const other : std::string("<>/&;\"'= \n\r\ta1-_:]!?\x7F\x80\0", 23))
      {
        std::string changed = record;
        changed[at] = other;
        expectAsParsed(changed);
        expectAsParsed(changed.insert(at, 1, record[at]));
      }
    }
}

TEST(PlainDocument, WhatAHandlerThrowsEndsItsDocumentOnly)
{
  std::string const text = PROLOG + RECORD;
  Parsed const parsed(text);
  for (char const* name : {"r", "a", "s", "c", "d"})
  {
    RecordingDocument document;
    document.onStart = [&](std::string const& started)
    {
      if (started == name)
        throw std::runtime_error("enough");
    };
    EXPECT_THROW(document.parseBuffer(text), std::runtime_error) << name;
    EXPECT_EQ(parsed.events.substr(0, document.events.size()), document.events) << name;
    expectGood();
  }
}

TEST(PlainDocument, AHandlerMayParse)
{
  std::string const text = PROLOG + RECORD;
  Parsed const parsed(text);
  RecordingDocument document;
  int count = 0;
  document.onStart = [&](std::string const&)
  {
    expectGood();
    RecordingDocument bad;
    EXPECT_FALSE(bad.parseBuffer(PROLOG + "<a></b>"));
    ++count;
  };
  EXPECT_TRUE(document.parseBuffer(text)) << document.lastError();
  EXPECT_EQ(parsed.events, document.events);
  EXPECT_EQ(6, count);
}

TEST(PlainDocument, RefusalsSayWhereInTheirOwnDocument)
{
  class Refusing : public XmlDocumentInterface
  {
  public:
    XmlObjParseContext* getObjParseContext(XMLCh const*) override { return nullptr; }
  };
  for (int i = 0; i < 3; ++i)
  {
    Refusing document;
    EXPECT_FALSE(document.parseBuffer(PROLOG + "<a b=\"1\"><c/></a>"));
    EXPECT_EQ("line 1, column 48: unexpected document element a", document.lastError());
    expectGood();
    EXPECT_FALSE(document.parseBuffer(PROLOG + "<a\nb=\"1\"/>"));
    EXPECT_EQ("line 2, column 8: unexpected document element a", document.lastError());
    expectGood();
  }
}

TEST(PlainDocument, OtherDocumentsInBetweenChangeNothing)
{
  for (int i = 0; i < 3; ++i)
  {
    expectGood();
    RecordingDocument document;
    EXPECT_TRUE(document.parseBuffer("<a>x</a>")) << document.lastError();
    EXPECT_EQ("(a)x/a:0", document.events);
    EXPECT_FALSE(document.parseBuffer("<a>x</b>"));
    EXPECT_EQ(0U, document.lastError().find("line 1, column 7: ")) << document.lastError();
    expectGood();
    EXPECT_FALSE(document.parseBuffer("<?xml version='1.1'?><a/>"));
    expectGood();
    EXPECT_FALSE(document.parseBuffer(PROLOG + "<a>&#11;</a>"));
  }
}
