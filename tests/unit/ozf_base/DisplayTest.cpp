#include "ozf/base/Display.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string spelledOut(std::string_view text)
{
  return displayText(text,
                     [](std::string& result, std::string_view bytes, char32_t character)
                     {
                       appendHex(result, "%", bytes);
                       result += '(' + std::to_string(static_cast<unsigned>(character)) + ')';
                     });
}

} // namespace

TEST(DisplayTest, WhatDrivesOrMisleadsIsNotDisplayable)
{
  for (char32_t const character :
       {0x00,   0x0A,   0x1B,   0x1F,   0x7F,   0x80,   0x9B,   0x9F,   0x061C, 0x200E,
        0x200F, 0x2028, 0x2029, 0x202A, 0x202E, 0x2066, 0x2069, 0xFDD0, 0xFFFE, 0x1FFFF})
    EXPECT_FALSE(isDisplayable(character)) << static_cast<unsigned>(character);
  for (char32_t const character : {0x20, 0x7E, 0xA0, 0xE4, 0x05D0, 0x0627, 0x200D, 0x2010, 0x2027,
                                   0x202F, 0x2065, 0x206A, 0x4E2D, 0xFDF0, 0xFFFD, 0x1F600})
    EXPECT_TRUE(isDisplayable(character)) << static_cast<unsigned>(character);
}

TEST(DisplayTest, TheRestOfATextStaysAsItIs)
{
  EXPECT_EQ("", spelledOut(""));
  EXPECT_EQ("plain 100 %", spelledOut("plain 100 %"));
  EXPECT_EQ("\xC3\xA4 \xD7\x90", spelledOut("\xC3\xA4 \xD7\x90"));
  EXPECT_EQ("a%E2%80%AE(8238)b%1B(27)", spelledOut("a\xE2\x80\xAE"
                                                   "b\x1B"));
  EXPECT_EQ("%FF(255)%C3(195)x", spelledOut("\xFF\xC3x"));
}
