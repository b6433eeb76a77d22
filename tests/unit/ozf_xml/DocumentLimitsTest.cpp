#include "ozf/xml/DocumentLimits.h"

#include "RecordingDocument.h"

#include <gtest/gtest.h>

#include <string>

using namespace Quillon::Tessarine::Ozf;

namespace
{

// A document of little room, whose texts are what is made of it.
class NarrowDocument : public RecordingDocument
{
public:
  DocumentLimits narrow{.elementNames = 3, .attributes = 2, .parserMemory = 4 << 20};
  DocumentTally tally{.mostBuilt = 100};

  DocumentLimits limits() const override { return narrow; }
  XmlObjParseContext* getObjParseContext(XMLCh const* rootTag) override
  {
    return new XmlObjParseContext(rootTag, tally);
  }
  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override
  {
    context->appendText(chars, length);
    context->noteBuilt(length);
    return 1;
  }
};

void expectTooLarge(std::string const& text, std::string const& reason)
{
  NarrowDocument document;
  EXPECT_FALSE(document.parseBuffer(text)) << reason;
  EXPECT_TRUE(document.wasTooLarge()) << reason;
  EXPECT_NE(std::string::npos, document.lastError().find("more than " + reason))
      << document.lastError();
  EXPECT_TRUE(document.parseBuffer("<a/>")) << document.lastError();
  EXPECT_FALSE(document.wasTooLarge());
}

void expectNotTooLarge(std::string const& text)
{
  NarrowDocument document;
  EXPECT_TRUE(document.parseBuffer(text)) << document.lastError();
}

} // namespace

TEST(DocumentLimits, namesOfElementsAreCountedOnce)
{
  expectNotTooLarge("<a><b/><c/><b/><c/><a/></a>");
  expectTooLarge("<a><b/><c/><d/></a>", "3 different names of elements");
  expectNotTooLarge("<d><e/><f/></d>"); // counted anew
}

TEST(DocumentLimits, attributesAreCountedForEachElement)
{
  expectNotTooLarge("<a x='' y=''><b x='' y=''/></a>");
  expectTooLarge("<a x='' y='' z=''/>", "2 attributes of one element");
}

TEST(DocumentLimits, theMemoryOfTheParserIsBounded)
{
  expectNotTooLarge("<a><!--" + std::string(100000, 'c') + "--></a>");
  std::string const reason = "4194304 bytes for names, attributes and comments";
  expectTooLarge("<a><!--" + std::string(4 << 20, 'c') + "--></a>", reason);
  expectTooLarge("<a x='" + std::string(4 << 20, 'v') + "'/>", reason);
  expectTooLarge("<a><?p " + std::string(4 << 20, 'i') + "?></a>", reason);
}

TEST(DocumentLimits, whatIsMadeOfADocumentIsBounded)
{
  std::string const reason = "100 bytes of what is made of it";
  expectNotTooLarge("<a>" + std::string(50, 'x') + "</a>");
  expectTooLarge("<a>" + std::string(60, 'x') + "</a>", reason); // as it is collected
  std::string pieces;
  for (int i = 0; i < 11; ++i)
    pieces += "<b/>tenletters";
  NarrowDocument document;
  EXPECT_FALSE(document.parseBuffer("<a>" + pieces + "</a>"));
  EXPECT_TRUE(document.wasTooLarge());
}

TEST(DocumentLimits, otherMistakesAreNoQuestionOfSize)
{
  NarrowDocument document;
  for (char const* text : {"<a>", "<a></b>", "", "<!DOCTYPE a><a/>"})
  {
    EXPECT_FALSE(document.parseBuffer(text)) << text;
    EXPECT_FALSE(document.wasTooLarge()) << text;
  }
}
