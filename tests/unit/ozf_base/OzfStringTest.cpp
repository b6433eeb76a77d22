#include "ozf/base/OzfString.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::size_t lengthOf(std::string_view text)
{
  char32_t ignored = 0;
  return decodeUtf8(text, ignored);
}

} // namespace

TEST(OzfString, HoldsBytesAsTheyAre)
{
  OzfString const text(std::string("a\0b\xff", 4));
  EXPECT_EQ(text.size(), 4u);
  EXPECT_EQ(text.str(), std::string("a\0b\xff", 4));
}

TEST(OzfString, NullIsEmpty)
{
  OzfString const text(static_cast<char const*>(nullptr));
  EXPECT_TRUE(text.empty());
  EXPECT_STREQ(text.c_str(), "");
}

TEST(OzfString, OrdersByBytes)
{
  EXPECT_LT(OzfString("Z"), OzfString("a"));
  EXPECT_LT(OzfString("a"), OzfString("aa"));
  EXPECT_LT(OzfString("z"), OzfString("\xc3\xa4"));
  EXPECT_EQ(OzfString("a"), OzfString(std::string("a")));
}

TEST(OzfString, IsWrittenToStreams)
{
  std::ostringstream out;
  out << OzfString("name");
  EXPECT_EQ(out.str(), "name");
}

TEST(OzfString, Utf16GoesThereAndBack)
{
  for (std::string const text :
       {"plain", "\xc3\xa4\xc3\xb6", "\xe6\x97\xa5\xe6\x9c\xac", "\xf0\x9f\x92\xbe",
        "\xf4\x8f\xbf\xbf", "\xee\x80\x80", "\xef\xbf\xbf"})
    EXPECT_EQ(OzfString(OzfString(text).toUtf16()).str(), text);
}

TEST(OzfString, CharactersBeyondTheBasicPlaneBecomeSurrogatePairs)
{
  EXPECT_EQ(OzfString("\xf0\x9f\x92\xbe").toUtf16(), u"\xD83D\xDCBE");
}

TEST(OzfString, UnpairedSurrogatesAreReplaced)
{
  char16_t const unpaired[] = {0xDCBE, 'a', 0xD83D, 'b', 0xD83D};
  EXPECT_EQ(OzfString(std::u16string_view(unpaired, 5)).str(), "\xef\xbf\xbd"
                                                               "a\xef\xbf\xbd"
                                                               "b\xef\xbf\xbd");
}

TEST(OzfString, BytesThatAreNotUtf8AreReplacedOneByOne)
{
  EXPECT_EQ(OzfString("a\xff\xfe"
                      "b")
                .toUtf16(),
            u"a\uFFFD\uFFFDb");
  EXPECT_EQ(OzfString("\xe6\x97").toUtf16(), u"\uFFFD\uFFFD");
}

// Wherever it stands among characters that are copied many at a time.
TEST(AppendUtf8, AStrangeCharacterIsKeptAtEveryPlaceOfALongText)
{
  for (std::size_t before = 0; before < 140; ++before)
  {
    std::string out = "kept ";
    appendUtf8(out, std::u16string(before, u'a') + u"\U0001F600" + std::u16string(100, u'b'));
    EXPECT_EQ("kept " + std::string(before, 'a') + "\xF0\x9F\x98\x80" + std::string(100, 'b'), out);
  }
}

// Short texts are taken in groups of different sizes.
TEST(AppendUtf8, AStrangeCharacterIsKeptAtEveryPlaceOfAShortText)
{
  for (std::size_t length = 0; length < 40; ++length)
    for (std::size_t place = 0; place <= length; ++place)
    {
      std::u16string text(length, u'x');
      std::string expected(length, 'x');
      if (place < length)
      {
        text[place] = u'\u0441';
        expected.replace(place, 1, "\xD1\x81");
      }
      std::string out = "before ";
      appendUtf8(out, text);
      EXPECT_EQ("before " + expected, out);
    }
}

TEST(DecodeUtf8, AcceptsWellFormedSequences)
{
  char32_t point = 0;
  EXPECT_EQ(decodeUtf8(std::string_view("\0", 1), point), 1u);
  EXPECT_EQ(point, U'\0');
  EXPECT_EQ(decodeUtf8("\x7f", point), 1u);
  EXPECT_EQ(decodeUtf8("\xc2\x80", point), 2u);
  EXPECT_EQ(point, char32_t{0x80});
  EXPECT_EQ(decodeUtf8("\xe0\xa0\x80", point), 3u);
  EXPECT_EQ(point, char32_t{0x800});
  EXPECT_EQ(decodeUtf8("\xf0\x90\x80\x80", point), 4u);
  EXPECT_EQ(point, char32_t{0x10000});
  EXPECT_EQ(decodeUtf8("\xf4\x8f\xbf\xbf", point), 4u);
  EXPECT_EQ(point, char32_t{0x10FFFF});
}

TEST(DecodeUtf8, RefusesEverythingElse)
{
  EXPECT_EQ(lengthOf(""), 0u);
  EXPECT_EQ(lengthOf("\x80"), 0u);                 // continuation first
  EXPECT_EQ(lengthOf("\xc0\xaf"), 0u);             // over-long '/'
  EXPECT_EQ(lengthOf("\xe0\x80\xaf"), 0u);         // over-long
  EXPECT_EQ(lengthOf("\xf0\x80\x80\xaf"), 0u);     // over-long
  EXPECT_EQ(lengthOf("\xed\xa0\x80"), 0u);         // surrogate
  EXPECT_EQ(lengthOf("\xed\xbf\xbf"), 0u);         // surrogate
  EXPECT_EQ(lengthOf("\xf4\x90\x80\x80"), 0u);     // above U+10FFFF
  EXPECT_EQ(lengthOf("\xf8\x88\x80\x80\x80"), 0u); // five bytes
  EXPECT_EQ(lengthOf("\xc3"), 0u);                 // cut off
  EXPECT_EQ(lengthOf("\xe6\x97"), 0u);             // cut off
  EXPECT_EQ(lengthOf("\xc3("), 0u);                // no continuation
}

TEST(DecodeUtf8, LeavesTheCharacterAloneOnFailure)
{
  char32_t point = 'x';
  EXPECT_EQ(decodeUtf8("\xff", point), 0u);
  EXPECT_EQ(point, U'x');
}
