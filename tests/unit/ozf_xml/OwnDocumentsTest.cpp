// The product's own short documents reach the parser in its own form. That must show in
// nothing: a document from an input source, which is parsed by itself, is what
// each is compared with.

#include "RecordingDocument.h"
#include "ozf/xml/HardenedParser.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <stdexcept>
#include <vector>
#include <xercesc/framework/MemBufInputSource.hpp>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string const PROLOG = R"(<?xml version="1.0" encoding="UTF-8"?>)";
std::string const RECORD =
    "<r><a N=\"x &amp; y\" T='2'><s C=\"13\">it's\n &lt;so&gt; &#65;</s></a>\n"
    "<b N=\"\"></b><c/>\r\n<d  N = \"1\"\tM='>'\n>12</d ></r>";

// How a document is read that nothing went before.
struct Apart : RecordingDocument
{
  explicit Apart(std::string const& text)
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

void expectAsApart(std::string const& rest)
{
  std::string const text = PROLOG + rest;
  Apart const apart(text);
  expectGood();
  RecordingDocument document;
  EXPECT_EQ(apart.accepted, document.parseBuffer(std::string_view(text))) << rest;
  EXPECT_EQ(apart.events, document.events) << rest;
  EXPECT_EQ(apart.lastError(), document.lastError()) << rest;
  expectGood();
}

} // namespace

TEST(OwnDocuments, GoodDocumentsAreReadAsApart)
{
  for (std::string const& rest :
       {RECORD, RECORD + "\n", RECORD + " \t\r\n\n", std::string("<a/>"), std::string("<a />"),
        std::string("<a b='1'/>"), std::string("<a></a>"), std::string("<documents></documents>"),
        std::string("<a>!?</a>"), std::string("<a b='!?'>x!</a>"), std::string("<a>]] ></a>"),
        std::string("<a><![CDATA[<b>]]></a>"), std::string("<a><!-- c --></a>"),
        std::string("<a><?p i?></a>"), std::string("<a/><!-- c -->"), std::string("<a/><?p i?>"),
        "<a b='" + std::string(16000, 'v') + "'/>", "<a b='" + std::string(20000, 'v') + "'/>",
        nestedElements(XmlDocumentInterface::MAX_DEPTH, "\n")})
  {
    RecordingDocument document;
    EXPECT_TRUE(document.parseBuffer(PROLOG + rest)) << rest << ": " << document.lastError();
    expectAsApart(rest);
  }
}

TEST(OwnDocuments, BadDocumentsFailAsApart)
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
                                  nestedElements(XmlDocumentInterface::MAX_DEPTH + 1, "\n")})
  {
    RecordingDocument document;
    EXPECT_FALSE(document.parseBuffer(std::string_view(PROLOG + rest))) << rest;
    expectAsApart(rest);
  }
}

TEST(OwnDocuments, DocumentsThatAreCutOffFailAsApart)
{
  for (std::size_t length = 0; length < RECORD.size(); ++length)
  {
    expectAsApart(RECORD.substr(0, length));
    expectAsApart(RECORD.substr(0, length) + ">");
  }
}

TEST(OwnDocuments, ChangedDocumentsAreReadAsApart)
{
  for (std::size_t at = 0; at < RECORD.size(); ++at)
  {
    std::string less = RECORD;
    expectAsApart(less.erase(at, 1));
    for (char const other : std::string("<>/&;\"'= \na]\0", 13))
    {
      std::string changed = RECORD;
      changed[at] = other;
      expectAsApart(changed);
      expectAsApart(changed.insert(at, 1, RECORD[at]));
    }
  }
}

TEST(OwnDocuments, WhatAHandlerThrowsEndsItsDocumentOnly)
{
  std::string const text = PROLOG + RECORD;
  Apart const apart(text);
  for (char const* name : {"r", "a", "s", "c", "d"})
  {
    RecordingDocument document;
    document.onStart = [&](std::string const& started)
    {
      if (started == name)
        throw std::runtime_error("enough");
    };
    EXPECT_THROW(document.parseBuffer(text), std::runtime_error) << name;
    EXPECT_EQ(apart.events.substr(0, document.events.size()), document.events) << name;
    expectGood();
  }
}

TEST(OwnDocuments, AHandlerMayParse)
{
  std::string const text = PROLOG + RECORD;
  Apart const apart(text);
  RecordingDocument document;
  int parsed = 0;
  document.onStart = [&](std::string const&)
  {
    expectGood();
    RecordingDocument bad;
    EXPECT_FALSE(bad.parseBuffer(PROLOG + "<a></b>"));
    ++parsed;
  };
  EXPECT_TRUE(document.parseBuffer(text)) << document.lastError();
  EXPECT_EQ(apart.events, document.events);
  EXPECT_EQ(6, parsed);
}

TEST(OwnDocuments, RefusalsSayWhereInTheirOwnDocument)
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

TEST(OwnDocuments, OtherDocumentsInBetweenChangeNothing)
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

// What the parser counts, it must not count over all documents: it expands one
// entity at most.
TEST(OwnDocuments, ManyDocumentsTakeNoMoreMemoryThanAFew)
{
  auto const parseMany = [](std::size_t from, std::size_t to)
  {
    for (std::size_t i = from; i < to; ++i)
    {
      std::string text = PROLOG + "<r b=\"&lt;&amp;\">";
      for (int j = 0; j < 20; ++j)
      {
        std::string const name = "e" + std::to_string(i) + '_' + std::to_string(j);
        text += '<' + name + ' ' + name + "=\"1\">&quot;\n</" + name + '>';
      }
      class Silent : public XmlDocumentInterface
      {
      };
      Silent document;
      ASSERT_TRUE(document.parseBuffer(text + "</r>")) << i << ": " << document.lastError();
    }
  };
  parseMany(0, 100);
  std::size_t const before = mallinfo2().uordblks;
  std::size_t most = 0;
  for (std::size_t i = 100; i < 20000; i += 100)
  {
    parseMany(i, i + 100);
    most = std::max(most, static_cast<std::size_t>(mallinfo2().uordblks));
  }
  EXPECT_LT(most, before + (2 << 20));
}
