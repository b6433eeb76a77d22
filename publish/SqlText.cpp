#include "publish/SqlText.h"

#include "ozf/base/Display.h"

namespace Publish
{

std::string sqlText(std::string_view text)
{
  return Quillon::Tessarine::Ozf::displayText(
      text,
      [](std::string& result, std::string_view bytes, char32_t character)
      {
        bool const isStray = character >= 0x80 && bytes.size() == 1;
        if (character == 0 || isStray)
          result += "\xEF\xBF\xBD";
        else
          result += bytes;
      });
}

std::string sqlBytes(std::span<unsigned char const> bytes)
{
  constexpr char HEX[] = "0123456789abcdef";
  std::string result = "\\x";
  result.reserve(2 + 2 * bytes.size());
  for (unsigned char const byte : bytes)
  {
    result += HEX[byte >> 4];
    result += HEX[byte & 0xF];
  }
  return result;
}

} // namespace Publish
