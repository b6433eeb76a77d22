#include "ozf/xml/XmlStr.h"

#include "RecordingDocument.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string escaped(std::string const& text, XmlStr::Encoding encoding = XmlStr::UTF_8)
{
  return XmlStr(OzfString(text), encoding).text();
}

constexpr auto UNKNOWN = static_cast<XmlStr::Encoding>(3);

} // namespace

TEST(XmlStr, MarkupCharactersBecomeEntities)
{
  EXPECT_EQ("a&amp;b&lt;c&gt;d&quot;e&apos;f", escaped("a&b<c>d\"e'f"));
}

TEST(XmlStr, EveryOtherPrintableAsciiCharacterStaysInEveryEncoding)
{
  std::string text;
  for (char c = ' '; c <= '~'; ++c)
    if (std::string_view("&<>\"'").find(c) == std::string_view::npos)
      text += c;
  ASSERT_EQ(90u, text.size());
  EXPECT_EQ(text, escaped(text));
  EXPECT_EQ(text, escaped(text, XmlStr::ISO_8859_1));
  EXPECT_EQ(text, escaped(text, XmlStr::US_ASCII));
}

TEST(XmlStr, AppendsBehindWhatIsThere)
{
  std::string out = "a<b";
  XmlStr::append(out, OzfString("<c\xC3\xA4>"), XmlStr::US_ASCII);
  EXPECT_EQ("a<b&lt;c&#xE4;&gt;", out);
  XmlStr::append(out, OzfString("d"), UNKNOWN);
  EXPECT_EQ("a<b&lt;c&#xE4;&gt;", out);
}

TEST(XmlStr, AnEntityIsEscapedAgain) { EXPECT_EQ("&amp;amp;", escaped("&amp;")); }

TEST(XmlStr, WhiteSpaceThatAReaderWouldChangeBecomesReferences)
{
  EXPECT_EQ("a b&#x9;c&#xA;d&#xD;e", escaped("a b\tc\nd\re"));
}

TEST(XmlStr, Utf8KeepsEveryCharacter)
{
  std::string const text = "\x7F \xC2\x80 \xC3\xA4 \xE2\x82\xAC \xEF\xBF\xBD \xF0\x9F\x98\x80 "
                           "\xF4\x8F\xBF\xBF";
  EXPECT_EQ(text, escaped(text));
}

TEST(XmlStr, Latin1KeepsWhatItHoldsAndRefersToTheRest)
{
  EXPECT_EQ("\x80|\xE4|\xFF|&#x100;|&#x20AC;|&#x1F600;",
            escaped("\xC2\x80|\xC3\xA4|\xC3\xBF|\xC4\x80|\xE2\x82\xAC|\xF0\x9F\x98\x80",
                    XmlStr::ISO_8859_1));
}

TEST(XmlStr, AsciiRefersToEverythingBeyondIt)
{
  EXPECT_EQ("\x7F|&#x80;|&#xE4;|&#x20AC;|&#x10FFFF;",
            escaped("\x7F|\xC2\x80|\xC3\xA4|\xE2\x82\xAC|\xF4\x8F\xBF\xBF", XmlStr::US_ASCII));
}

TEST(XmlStr, WhatXmlCannotHoldIsReplaced)
{
  EXPECT_EQ("a\xEF\xBF\xBD"
            "b",
            escaped(std::string("a\0b", 3)));
  EXPECT_EQ("&#xFFFD;&#xFFFD;", escaped("\x01\x1F", XmlStr::US_ASCII));
  EXPECT_EQ("&#xFFFD;|&#xFFFD;", escaped("\xEF\xBF\xBE|\xEF\xBF\xBF", XmlStr::ISO_8859_1));
}

TEST(XmlStr, BytesThatAreNotUtf8AreReplacedOneByOne)
{
  EXPECT_EQ("x&#xFFFD;y", escaped("x\xFFy", XmlStr::US_ASCII));
  EXPECT_EQ("&#xFFFD;&#xFFFD;", escaped("\xC0\xAF", XmlStr::US_ASCII));
  EXPECT_EQ("&#xFFFD;&#xFFFD;", escaped("\xE2\x82", XmlStr::US_ASCII));
  EXPECT_EQ("&#xFFFD;&#xFFFD;&#xFFFD;", escaped("\xED\xA0\x80", XmlStr::US_ASCII));
}

TEST(XmlStr, Utf16TextIsEscapedAlike)
{
  EXPECT_EQ(std::string("&lt;\xC3\xA4\xF0\x9F\x98\x80"),
            XmlStr(std::u16string_view(u"<\u00E4\U0001F600"), XmlStr::UTF_8).text());
  char16_t const unpaired[] = {u'a', 0xD800, u'b'};
  EXPECT_EQ(std::string("a&#xFFFD;b"),
            XmlStr(std::u16string_view(unpaired, 3), XmlStr::US_ASCII).text());
}

TEST(XmlStr, Utf16IsAppendedAsItsUtf8Is)
{
  for (char32_t c = 0; c < 0x300; ++c)
  {
    std::u16string const text = {u'a', u'b', static_cast<char16_t>(c), u'c'};
    for (auto const encoding : {XmlStr::UTF_8, XmlStr::ISO_8859_1, XmlStr::US_ASCII})
    {
      std::string expected = "<";
      XmlStr::append(expected, OzfString(text), encoding);
      std::string out = "<";
      XmlStr::append(out, std::u16string_view(text), encoding);
      EXPECT_EQ(expected, out) << static_cast<unsigned>(c);
    }
  }
  std::string out = "a";
  XmlStr::append(out, std::u16string_view(u"plain"), XmlStr::UTF_8);
  XmlStr::append(out, std::u16string_view(u"d"), UNKNOWN);
  EXPECT_EQ("aplain", out);
}

// Wherever it stands among characters that are copied many at a time.
TEST(XmlStr, AMarkupCharacterIsEscapedAtEveryPlaceOfALongText)
{
  for (std::size_t before = 0; before < 140; ++before)
  {
    std::u16string const text = std::u16string(before, u'a') + u'&' + std::u16string(100, u'b');
    std::string out = "kept ";
    XmlStr::append(out, std::u16string_view(text), XmlStr::UTF_8);
    EXPECT_EQ("kept " + std::string(before, 'a') + "&amp;" + std::string(100, 'b'), out);
  }
}

// Short texts are taken in groups of different sizes.
TEST(XmlStr, AStrangeCharacterCountsAtEveryPlaceOfAShortText)
{
  for (char16_t const strange : u"&<>\"'\t\x1F\x80\u0126\u013C\u0441")
    for (std::size_t length = 1; length < 40; ++length)
      for (std::size_t place = 0; place < length; ++place)
      {
        std::u16string text(length, u'x');
        text[place] = strange;
        std::string out;
        XmlStr::append(out, std::u16string_view(text), XmlStr::US_ASCII);
        EXPECT_EQ(std::string(place, 'x') +
                      XmlStr(OzfString(std::u16string(1, strange)), XmlStr::US_ASCII).text() +
                      std::string(length - place - 1, 'x'),
                  out);
      }
}

TEST(XmlStr, EmptyTextIsATextAndAnUnknownEncodingHasNone)
{
  EXPECT_STREQ("", XmlStr(OzfString(), XmlStr::UTF_8).text());
  EXPECT_EQ(nullptr, XmlStr(OzfString("a"), UNKNOWN).text());
}

TEST(XmlStr, AStreamFailsWhenThereIsNoText)
{
  std::ostringstream good;
  good << XmlStr(OzfString("<"), XmlStr::UTF_8);
  EXPECT_TRUE(good.good());
  EXPECT_EQ("&lt;", good.str());

  std::ostringstream bad;
  bad << XmlStr(OzfString("<"), UNKNOWN);
  EXPECT_TRUE(bad.fail());
  EXPECT_FALSE(bad.bad());
  EXPECT_EQ("", bad.str());
}

TEST(XmlStr, PrologNamesTheEncoding)
{
  std::ostringstream os;
  EXPECT_EQ(&os, &XmlStr::xmlProlog(os, XmlStr::UTF_8));
  XmlStr::xmlProlog(os, XmlStr::ISO_8859_1, "1.1");
  XmlStr::xmlProlog(os, XmlStr::US_ASCII);
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
            "<?xml version=\"1.1\" encoding=\"ISO-8859-1\"?>"
            "<?xml version=\"1.0\" encoding=\"US-ASCII\"?>",
            os.str());
}

TEST(XmlStr, PrologOfAnUnknownEncodingFailsTheStream)
{
  std::ostringstream os;
  XmlStr::xmlProlog(os, UNKNOWN);
  EXPECT_TRUE(os.fail());
  EXPECT_EQ("", os.str());
}

TEST(XmlStr, TagsCarryNothingBesidesTheName)
{
  std::ostringstream os;
  EXPECT_EQ(&os, &XmlStr::appendStart(os, "Name"));
  EXPECT_EQ(&os, &XmlStr::appendEnd(os, "Name"));
  EXPECT_EQ("<Name></Name>", os.str());
}

TEST(XmlStr, WhatIsWrittenReadsBackInEveryEncoding)
{
  std::string const text = " a&b<c>]]>\"d\"'e'\t\r\n\xC2\x85\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80 ";
  for (auto const encoding : {XmlStr::UTF_8, XmlStr::ISO_8859_1, XmlStr::US_ASCII})
  {
    std::ostringstream os;
    XmlStr::xmlProlog(os, encoding)
        << "<a b=\"" << XmlStr(text, encoding) << "\">" << XmlStr(text, encoding) << "</a>";
    RecordingDocument document;
    EXPECT_TRUE(document.parseBuffer(os.str())) << document.lastError();
    EXPECT_EQ("(a b=" + text + ")" + text + "/a:0", document.events) << encoding;
  }
}
