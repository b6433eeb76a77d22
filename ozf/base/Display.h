// Text from elsewhere on its way to eyes: terminals, logs, pages.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// Whether a character may be shown as it is. Controls drive terminals (those of
// U+0080 to U+009F as well), separators of lines and paragraphs break what is one
// line, marks and overrides of the writing direction make a text read otherwise
// than it is, and noncharacters mean nothing.
OZF_EXPORT bool isDisplayable(char32_t character) noexcept;

// The text with each character that may not be shown, and each byte that is no
// UTF-8, as escape writes it: escape(result, bytes, character), where the
// character of a stray byte is that byte. Plain ASCII passes at once.
template <class Escape>
std::string displayText(std::string_view text, Escape escape)
{
  constexpr auto PLAIN = [](char c) { return c >= 0x20 && c < 0x7F; };
  std::string result;
  result.reserve(text.size());
  for (;;)
  {
    auto const plain = std::find_if_not(text.begin(), text.end(), PLAIN);
    result.append(text.begin(), plain);
    text.remove_prefix(static_cast<std::size_t>(plain - text.begin()));
    if (text.empty())
      return result;

    char32_t character = 0;
    std::size_t const length = decodeUtf8(text, character);
    std::string_view const bytes = text.substr(0, std::max<std::size_t>(length, 1));
    if (length != 0 && isDisplayable(character))
      result += bytes;
    else
      escape(result, bytes, length != 0 ? character : static_cast<unsigned char>(bytes.front()));
    text.remove_prefix(bytes.size());
  }
}

// The text on one line: what may not be shown, and what is no UTF-8, as \xNN.
OZF_EXPORT std::string onOneLine(std::string_view text);

// Appends the character as JSON writes one in a string that is not to stand there as
// it is: \uXXXX, for one beyond 0xFFFF two of them.
OZF_EXPORT void appendUnits(std::string& result, char32_t character);

// Appends mark and two hexadecimal digits for each byte: "%1B", "\x1B".
OZF_EXPORT void appendHex(std::string& result, std::string_view mark, std::string_view bytes);

} // namespace Quillon::Tessarine::Ozf
