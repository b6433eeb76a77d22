#include "ozf/xml/XmlDocumentInterface.h"

#include "RecordingDocument.h"
#include "ozf/log/Assertion.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/util/BinInputStream.hpp>
#include <xercesc/util/XMLUni.hpp>

using namespace Quillon::Tessarine::Ozf;

namespace
{

// Makes a context of its own for every element named "s" (for sub) down to a
// given level, as owners of sub-objects do, and writes down what each of them
// says of the end tags that it meets.
class NestingDocument : public XmlDocumentInterface
{
public:
  explicit NestingDocument(std::size_t levels) : m_levels(levels) {}

  std::string ends;

  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name, AttributeList&) override
  {
    if (m_subs.size() < m_levels && XmlObjParseContext::cmptag(name, "s"))
      m_subs.push_back(std::make_unique<XmlObjParseContext>(
          name, m_subs.empty() ? context : m_subs.back().get()));
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    ends += narrowName(name);
    for (auto const& sub : m_subs)
      ends += sub->isEndTag(name) ? '1' : '0';
    ends += context->isEndTag(name) ? "!" : ".";
    if (!m_subs.empty() && m_subs.back()->isEndTag(name))
      m_subs.pop_back();
    return 1;
  }

private:
  std::size_t m_levels;
  std::vector<std::unique_ptr<XmlObjParseContext>> m_subs;
};

// Counts its contexts.
class CountedContext : public XmlObjParseContext
{
public:
  explicit CountedContext(XMLCh const* name) : XmlObjParseContext(name, nullptr) { ++alive; }
  ~CountedContext() override { --alive; }

  static inline int alive = 0;
};

class OwnContextDocument : public RecordingDocument
{
public:
  XmlObjParseContext* getObjParseContext(XMLCh const* rootTag) override
  {
    events += "[" + narrowName(rootTag) + "]";
    return refuse ? nullptr : new CountedContext(rootTag);
  }

  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override
  {
    EXPECT_NE(nullptr, dynamic_cast<CountedContext*>(context));
    EXPECT_EQ(1, CountedContext::alive);
    return RecordingDocument::xmlStartElement(context, name, attributes);
  }

  bool refuse = false;
};

// Hands out the text three bytes at a time.
class DripSource : public xercesc::InputSource
{
public:
  explicit DripSource(std::string text) : m_text(std::move(text)) {}

  xercesc::BinInputStream* makeStream() const override
  {
    class Stream : public xercesc::BinInputStream
    {
    public:
      explicit Stream(std::string text) : m_text(std::move(text)) {}
      XMLFilePos curPos() const override { return m_at; }
      XMLCh const* getContentType() const override { return nullptr; }
      XMLSize_t readBytes(XMLByte* target, XMLSize_t limit) override
      {
        XMLSize_t const count = std::min<XMLSize_t>({3, limit, m_text.size() - m_at});
        std::copy_n(m_text.begin() + static_cast<std::ptrdiff_t>(m_at), count, target);
        m_at += count;
        return count;
      }

    private:
      std::string m_text;
      XMLSize_t m_at = 0;
    };
    return new Stream(m_text);
  }

private:
  std::string m_text;
};

class NoStreamSource : public xercesc::InputSource
{
public:
  xercesc::BinInputStream* makeStream() const override { return nullptr; }
};

} // namespace

TEST(XmlDocumentInterface, EventsComeInDocumentOrder)
{
  RecordingDocument document;
  ASSERT_TRUE(document.parseBuffer("<?xml version='1.0'?><!-- c --><?p i?>\n<a x='1' y='2'>t<b/>"
                                   "<![CDATA[<]]>&gt;&#x41;</a>\n<!-- c -->"));
  EXPECT_EQ("(a x=1 y=2)t(b)/b:1<>A/a:0", document.events);
  EXPECT_EQ("", document.lastError());
}

TEST(XmlDocumentInterface, TheEndOfTheDocumentElementAloneCompletes)
{
  RecordingDocument document;
  ASSERT_TRUE(document.parseBuffer("<a><a><b><a/></b></a><a/></a>"));
  EXPECT_EQ("(a)(a)(b)(a)/a:1/b:1/a:1(a)/a:1/a:0", document.events);
}

TEST(XmlDocumentInterface, ASubContextEndsWithTheElementThatOpenedIt)
{
  NestingDocument document(1);
  ASSERT_TRUE(document.parseBuffer("<s><s/></s>"));
  EXPECT_EQ("s0.s1!", document.ends) << "a context made for the document element itself";

  NestingDocument inner(1);
  ASSERT_TRUE(inner.parseBuffer("<r><s><s><s/></s><x><s/></x></s><s/></r>"));
  EXPECT_EQ("s0.s0.s0.x0.s1.s1.r!", inner.ends);
}

TEST(XmlDocumentInterface, ASubContextOfASubContextEndsWithItsOwnElement)
{
  NestingDocument document(2);
  ASSERT_TRUE(document.parseBuffer("<r><s><s><s/><x/></s><s/></s></r>"));
  EXPECT_EQ("s00.x00.s01.s01.s1.r!", document.ends);

  NestingDocument apart(2);
  ASSERT_TRUE(apart.parseBuffer("<s><x><s><x><s/></x></s></x></s>"));
  EXPECT_EQ("s00.x00.s01.x0.s1!", apart.ends);
}

TEST(XmlDocumentInterface, TheDocumentMakesItsContextAndItIsGoneAfterwards)
{
  OwnContextDocument document;
  ASSERT_TRUE(document.parseBuffer("<a><b/></a>"));
  EXPECT_EQ("[a](a)(b)/b:1/a:0", document.events);
  EXPECT_EQ(0, CountedContext::alive);
}

TEST(XmlDocumentInterface, TheContextIsGoneAfterAnErrorAndAfterAnException)
{
  OwnContextDocument document;
  EXPECT_FALSE(document.parseBuffer("<a><b></a>"));
  EXPECT_EQ(0, CountedContext::alive);
  document.onStart = [](std::string const&) { throw std::runtime_error("no"); };
  EXPECT_THROW(document.parseBuffer("<a/>"), std::runtime_error);
  EXPECT_EQ(0, CountedContext::alive);
}

TEST(XmlDocumentInterface, ADocumentWithoutContextIsRefused)
{
  OwnContextDocument document;
  document.refuse = true;
  EXPECT_FALSE(document.parseBuffer("<a><b/></a>"));
  EXPECT_EQ("[a]", document.events);
  EXPECT_EQ("line 1, column 4: unexpected document element a", document.lastError());
}

TEST(XmlDocumentInterface, AnErrorSaysWhereItIsAndKeepsWhatWasRead)
{
  RecordingDocument document;
  EXPECT_FALSE(document.parseBuffer("<a>\n  <b>\n  x</c></a>"));
  EXPECT_EQ(0U, document.lastError().find("line 3, column ")) << document.lastError();
  EXPECT_NE(std::string::npos, document.lastError().find('b')) << document.lastError();
  EXPECT_EQ("(a)\n  (b)\n  x", document.events);
}

TEST(XmlDocumentInterface, TheErrorIsGoneAfterASuccess)
{
  RecordingDocument document;
  EXPECT_FALSE(document.parseBuffer("<a>"));
  EXPECT_NE("", document.lastError());
  EXPECT_TRUE(document.parseBuffer("<a/>"));
  EXPECT_EQ("", document.lastError());
}

TEST(XmlDocumentInterface, EmptyTextsAreNotWellFormed)
{
  RecordingDocument document;
  for (char const* text : {"", " ", "\n\n", "<?xml version='1.0'?>", "<!-- c -->", "text"})
  {
    EXPECT_FALSE(document.parseBuffer(text)) << text;
    EXPECT_NE("", document.lastError()) << text;
  }
  EXPECT_FALSE(document.parseBuffer(static_cast<char const*>(nullptr)));
  EXPECT_FALSE(document.parseBuffer(std::string_view()));
  EXPECT_EQ("", document.events);
}

TEST(XmlDocumentInterface, ATextNeedNotEndWithNul)
{
  RecordingDocument document;
  EXPECT_TRUE(document.parseBuffer(std::string_view("<a/><b/>", 4)));
  EXPECT_EQ("(a)/a:0", document.events);
}

TEST(XmlDocumentInterface, ElementsNestToTheLimitAndNoDeeper)
{
  RecordingDocument document;
  EXPECT_TRUE(document.parseBuffer(nestedElements(XmlDocumentInterface::MAX_DEPTH)));
  EXPECT_FALSE(document.parseBuffer(nestedElements(XmlDocumentInterface::MAX_DEPTH + 1)));
  EXPECT_EQ("line 1, column 772: elements nest more than 256 deep", document.lastError());
}

TEST(XmlDocumentInterface, ReadsFromASourcePieceByPiece)
{
  initializeXml(); // a source is made before the first parse
  RecordingDocument document;
  std::string text(100000, 'x');
  EXPECT_TRUE(document.parse(DripSource("<a>" + text + "<b/></a>"))) << document.lastError();
  EXPECT_EQ("(a)" + text + "(b)/b:1/a:0", document.events);
}

TEST(XmlDocumentInterface, ASourceThatCannotBeOpenedIsAnError)
{
  initializeXml();
  NoStreamSource source;
  RecordingDocument document;
  EXPECT_FALSE(document.parse(source));
  EXPECT_NE("", document.lastError());
  source.setIssueFatalErrorIfNotFound(false);
  EXPECT_FALSE(document.parse(source));
  EXPECT_NE("", document.lastError());
}

TEST(XmlDocumentInterface, AnAssertionFailurePassesThroughAndTheThreadParsesOn)
{
  RecordingDocument document;
  document.onStart = [](std::string const& name)
  {
    if (name == "b")
      throw AssertionFailure("broken");
  };
  for (int i = 0; i < 3; ++i)
  {
    document.events.clear();
    EXPECT_THROW(document.parseBuffer("<a x='1'><b/></a>"), AssertionFailure);
    EXPECT_EQ("(a x=1)(b)", document.events);
    RecordingDocument next;
    EXPECT_TRUE(next.parseBuffer("<c><d/></c>")) << next.lastError();
    EXPECT_EQ("(c)(d)/d:1/c:0", next.events);
  }
  document.onStart = nullptr;
  document.events.clear();
  EXPECT_TRUE(document.parseBuffer("<b/>"));
  EXPECT_EQ("(b)/b:0", document.events);
}

TEST(XmlDocumentInterface, ParsesInsideAParse)
{
  RecordingDocument outer;
  RecordingDocument inner;
  outer.onStart = [&](std::string const& name)
  {
    inner.events += name + ":";
    EXPECT_TRUE(inner.parseBuffer("<i><j/></i>"));
    RecordingDocument broken;
    EXPECT_FALSE(broken.parseBuffer("<!DOCTYPE x><x/>"));
  };
  EXPECT_TRUE(outer.parseBuffer("<a><b/>t</a>")) << outer.lastError();
  EXPECT_EQ("(a)(b)/b:1t/a:0", outer.events);
  EXPECT_EQ("a:(i)(j)/j:1/i:0b:(i)(j)/j:1/i:0", inner.events);
}

TEST(XmlDocumentInterface, AnObjectMayParseInsideItsOwnParse)
{
  RecordingDocument document;
  document.onStart = [&](std::string const& name)
  {
    if (name == "b")
    {
      EXPECT_FALSE(document.parseBuffer("<c><d></c>"));
    }
  };
  EXPECT_TRUE(document.parseBuffer("<a><b/></a>")) << document.lastError();
  EXPECT_EQ("(a)(b)(c)(d)/b:1/a:0", document.events);
  EXPECT_EQ("", document.lastError());
}

TEST(XmlDocumentInterface, ThreadsParseAtTheSameTime)
{
  constexpr int ROUNDS = 500;
  int good[4] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back(
        [&good, i]
        {
          std::string const name(1, static_cast<char>('a' + i));
          for (int round = 0; round < ROUNDS; ++round)
          {
            RecordingDocument document;
            bool const read = document.parseBuffer("<" + name + ">x<y/></" + name + ">");
            RecordingDocument broken;
            bool const refused = !broken.parseBuffer("<" + name + "><y></" + name + ">");
            if (read && refused && document.events == "(" + name + ")x(y)/y:1/" + name + ":0")
              ++good[i];
          }
        });
  for (auto& thread : threads)
    thread.join();
  for (int const count : good)
    EXPECT_EQ(ROUNDS, count);
}

TEST(XmlDocumentInterface, AThreadParsesWhileItsThreadStorageGoes)
{
  struct Late
  {
    ~Late()
    {
      RecordingDocument document;
      *result = document.parseBuffer("<a/>");
    }
    bool* result = nullptr;
  };
  bool first = false;
  bool late = false;
  std::thread(
      [&]
      {
        thread_local Late atEnd; // made before the parser, so it goes after it
        atEnd.result = &late;
        RecordingDocument document;
        first = document.parseBuffer("<a/>");
      })
      .join();
  EXPECT_TRUE(first);
  EXPECT_TRUE(late);
}
