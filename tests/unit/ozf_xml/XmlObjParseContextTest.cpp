#include "ozf/xml/XmlObjParseContext.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

TEST(XmlObjParseContext, TagsCompareExactly)
{
  EXPECT_TRUE(XmlObjParseContext::cmptag(u"Name", "Name"));
  EXPECT_TRUE(XmlObjParseContext::cmptag(u"", ""));
  EXPECT_FALSE(XmlObjParseContext::cmptag(u"Name", "name"));
  EXPECT_FALSE(XmlObjParseContext::cmptag(u"Name", "Nam"));
  EXPECT_FALSE(XmlObjParseContext::cmptag(u"Nam", "Name"));
  EXPECT_FALSE(XmlObjParseContext::cmptag(u"\u014E", "N"));
}

TEST(XmlObjParseContext, CollectsTextUntilItIsCleared)
{
  XmlObjParseContext context(u"a", nullptr);
  EXPECT_FALSE(context.hasText());
  EXPECT_EQ(OzfString(), context.text());
  context.appendText(u"x\u00E4yz", 3);
  context.appendText(u"!", 1);
  EXPECT_TRUE(context.hasText());
  EXPECT_EQ(OzfString("x\xC3\xA4y!"), context.text());
  context.clearText();
  EXPECT_FALSE(context.hasText());
}

TEST(XmlObjParseContext, ACharacterSplitBetweenTwoPiecesIsOneCharacter)
{
  XmlObjParseContext context(u"a", nullptr);
  char16_t const smile[] = {0xD83D, 0xDE00};
  context.appendText(smile, 1);
  context.appendText(smile + 1, 1);
  EXPECT_EQ(OzfString("\xF0\x9F\x98\x80"), context.text());
}

TEST(XmlObjParseContext, KnowsItsParent)
{
  XmlObjParseContext outer(u"a", nullptr);
  XmlObjParseContext inner(u"b", &outer);
  EXPECT_EQ(nullptr, outer.parent());
  EXPECT_EQ(&outer, inner.parent());
}

TEST(XmlObjParseContext, WithoutADocumentTheNameAloneDecides)
{
  XmlObjParseContext outer(u"a", nullptr);
  XmlObjParseContext inner(u"b", &outer);
  EXPECT_TRUE(outer.isEndTag(u"a"));
  EXPECT_FALSE(outer.isEndTag(u"A"));
  EXPECT_TRUE(inner.isEndTag(u"b"));
  EXPECT_FALSE(inner.isEndTag(u"a"));
}

TEST(XmlObjParseContext, KeepsTheNameOfTheElementAsItsOwn)
{
  std::u16string name = u"abc";
  XmlObjParseContext context(name.c_str(), nullptr);
  name = u"xyz";
  EXPECT_TRUE(context.isEndTag(u"abc"));
}

TEST(XmlObjParseContext, NamesOfEveryLengthAreKept)
{
  for (std::size_t length = 1; length <= 64; ++length)
  {
    std::u16string const name(length, u'n');
    XmlObjParseContext context(name.c_str(), nullptr);
    EXPECT_TRUE(context.isEndTag(name.c_str())) << length;
    EXPECT_FALSE(context.isEndTag((name + u'n').c_str())) << length;
    EXPECT_FALSE(context.isEndTag(name.c_str() + 1)) << length;
    EXPECT_FALSE(context.isEndTag((name.substr(1) + u'x').c_str())) << length;
  }
}

TEST(XmlObjParseContext, NoTextOfOneContextIsSeenInAnother)
{
  XmlObjParseContext outer(u"a", nullptr);
  for (std::size_t length : {100u, 10u, 100'000u, 20u, 0u})
  {
    XmlObjParseContext inner(u"b", &outer);
    EXPECT_FALSE(inner.hasText());
    std::u16string const text(length, u'x');
    inner.appendText(text.data(), 0);
    EXPECT_FALSE(inner.hasText());
    inner.appendText(text.data(), text.size());
    EXPECT_EQ(text, inner.rawText());
    EXPECT_EQ(OzfString(std::string(length, 'x')), inner.text());
    EXPECT_FALSE(outer.hasText());
  }
  outer.appendText(u"y", 1);
  EXPECT_EQ(OzfString("y"), outer.text());
}

TEST(XmlObjParseContext, ContextsOfOneDocumentShareItsDepth)
{
  XmlObjParseContext outer(u"a", nullptr);
  outer.enter();
  XmlObjParseContext inner(u"a", &outer);
  EXPECT_FALSE(outer.isEndTag(u"a"));
  EXPECT_TRUE(inner.isEndTag(u"a"));
  inner.enter();
  EXPECT_FALSE(inner.isEndTag(u"a"));
  inner.leave();
  EXPECT_TRUE(inner.isEndTag(u"a"));
  outer.leave();
  EXPECT_FALSE(inner.isEndTag(u"a"));
  EXPECT_TRUE(outer.isEndTag(u"a"));
}
