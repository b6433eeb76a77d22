#include "ozf/xml/OzfDOMHandler.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

TEST(OzfDOMHandler, FindsValuesWhereverTheyStand)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r><a>one</a><b><c><d>two &amp; \xC3\xA4</d></c></b></r>"));
  OzfString value;
  EXPECT_TRUE(handler.getValue("a", value));
  EXPECT_EQ(OzfString("one"), value);
  EXPECT_TRUE(handler.getValue("d", value));
  EXPECT_EQ(OzfString("two & \xC3\xA4"), value);
}

TEST(OzfDOMHandler, TheDocumentElementItselfMayBeAValue)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<a>one</a>"));
  OzfString value;
  EXPECT_TRUE(handler.getValue("a", value));
  EXPECT_EQ(OzfString("one"), value);
}

TEST(OzfDOMHandler, TheFirstOfANameCounts)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r><b><a>one</a></b><a>two</a></r>"));
  OzfString value;
  EXPECT_TRUE(handler.getValue("a", value));
  EXPECT_EQ(OzfString("one"), value);
}

TEST(OzfDOMHandler, SurroundingWhiteSpaceIsDroppedAndInnerKept)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r> <a>\n\t one  two \r\n</a> <b>  </b></r>"));
  OzfString value;
  EXPECT_TRUE(handler.getValue("a", value));
  EXPECT_EQ(OzfString("one  two"), value);
  EXPECT_TRUE(handler.getValue("b", value));
  EXPECT_EQ(OzfString(), value);
}

TEST(OzfDOMHandler, AnElementWithChildrenIsNoValue)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r><a>one<b/>two</a><a>three</a></r>"));
  OzfString value("before");
  EXPECT_FALSE(handler.getValue("r", value));
  EXPECT_EQ(OzfString("before"), value);
  EXPECT_TRUE(handler.getValue("a", value));
  EXPECT_EQ(OzfString("three"), value);
}

TEST(OzfDOMHandler, TextOfCharacterDataSectionsCounts)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r><a>x<![CDATA[<&>]]>y</a></r>"));
  OzfString value;
  EXPECT_TRUE(handler.getValue("a", value));
  EXPECT_EQ(OzfString("x<&>y"), value);
}

TEST(OzfDOMHandler, NumbersAreDecimalOf32Bits)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r><a> 4294967295 </a><b>4294967296</b><c>-1</c><d>x</d><e/></r>"));
  unsigned value = 77;
  for (char const* name : {"b", "c", "d", "e", "missing"})
    EXPECT_FALSE(handler.getValue(name, value)) << name;
  EXPECT_EQ(77U, value);
  EXPECT_TRUE(handler.getValue("a", value));
  EXPECT_EQ(4294967295U, value);
}

TEST(OzfDOMHandler, AMissingValueLeavesTheVariableAlone)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r><a>one</a></r>"));
  OzfString value("before");
  EXPECT_FALSE(handler.getValue("A", value));
  EXPECT_EQ(OzfString("before"), value);
}

TEST(OzfDOMHandler, ARefusedDocumentHasNoValuesAndAnError)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r><a>one</a></r>"));
  EXPECT_EQ("", handler.lastError());
  OzfString value;
  for (char const* text : {"", "   ", "<r><a>one</a>", "<!DOCTYPE r><r><a>one</a></r>"})
  {
    EXPECT_NE(0, handler.parse(text)) << text;
    EXPECT_NE("", handler.lastError()) << text;
    EXPECT_FALSE(handler.getValue("a", value)) << text;
  }
}

TEST(OzfDOMHandler, AnotherParseReplacesTheValues)
{
  OzfDOMHandler handler;
  ASSERT_EQ(0, handler.parse("<r><a>one</a></r>"));
  ASSERT_EQ(0, handler.parse("<r><b>two</b></r>"));
  OzfString value;
  EXPECT_FALSE(handler.getValue("a", value));
  EXPECT_TRUE(handler.getValue("b", value));
}
