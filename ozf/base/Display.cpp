#include "ozf/base/Display.h"

namespace Quillon::Tessarine::Ozf
{

bool isDisplayable(char32_t character) noexcept
{
  auto const within = [character](char32_t first, char32_t last)
  { return character >= first && character <= last; };
  bool const control = character < 0x20 || within(0x7F, 0x9F);
  bool const separator = within(0x2028, 0x2029);
  bool const direction = character == 0x061C || within(0x200E, 0x200F) || within(0x202A, 0x202E) ||
                         within(0x2066, 0x2069);
  bool const nobodys = within(0xFDD0, 0xFDEF) || (character & 0xFFFE) == 0xFFFE;
  return !control && !separator && !direction && !nobodys;
}

std::string onOneLine(std::string_view text)
{
  return displayText(text, [](std::string& result, std::string_view bytes, char32_t)
                     { appendHex(result, "\\x", bytes); });
}

void appendUnits(std::string& result, char32_t character)
{
  auto const append = [&result](char32_t unit)
  {
    result += "\\u";
    char const bytes[] = {static_cast<char>(unit >> 8), static_cast<char>(unit & 0xFF)};
    appendHex(result, "", {bytes, sizeof bytes});
  };
  if (character < 0x10000)
    return append(character);
  append(0xD800 + ((character - 0x10000) >> 10));
  append(0xDC00 + ((character - 0x10000) & 0x3FF));
}

void appendHex(std::string& result, std::string_view mark, std::string_view bytes)
{
  constexpr std::string_view HEX = "0123456789ABCDEF";
  for (char const c : bytes)
  {
    auto const byte = static_cast<unsigned char>(c);
    result += mark;
    result += HEX[byte >> 4];
    result += HEX[byte & 0xF];
  }
}

} // namespace Quillon::Tessarine::Ozf
