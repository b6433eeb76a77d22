// Text that must not reach a terminal, a log or a page as it is.

#pragma once

#include "ozf/base/Display.h"
#include "ozf/base/OzfString.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace tqtest
{

// What would be a line of its own if a line break in front of it were one.
inline constexpr char FORGED[] = "forged-line";

// Controls, the deletion, those of U+0080 to U+009F, the separators of lines and
// paragraphs, and every mark, embedding, override and isolate of the writing
// direction. That much of it a document of XML may hold, line breaks as references.
inline std::string harmfulXml()
{
  std::string text = "a&#10;" + std::string(FORGED) +
                     "&#13;b&#9;c\x7F"
                     "d";
  for (char16_t const character :
       {0x80, 0x85, 0x9B, 0x9D, 0x9F, 0x061C, 0x200E, 0x200F, 0x2028, 0x2029, 0x202A, 0x202B,
        0x202C, 0x202D, 0x202E, 0x2066, 0x2067, 0x2068, 0x2069})
  {
    Quillon::Tessarine::Ozf::appendUtf8(text, {&character, 1});
    text += 'x';
  }
  return text;
}

// The same with escape sequences, bells and bytes that are no UTF-8: stray ones,
// a form that is too long, half a surrogate, and one that is cut off.
inline std::string harmfulText()
{
  std::string text = harmfulXml();
  for (auto const& [reference, byte] :
       {std::pair("&#10;", '\n'), std::pair("&#13;", '\r'), std::pair("&#9;", '\t')})
    text.replace(text.find(reference), std::string_view(reference).size(), 1, byte);
  return text + "\x1B[2J\x1B]0;title\x07\x01\xFF\x9Bm\xC0\xAF\xED\xA0\x80\xE2\x80";
}

// By a list of its own, which knows nothing of what the product takes for harmful.
inline bool isHarmful(char32_t character)
{
  for (auto const& [first, last] :
       {std::pair(0x00, 0x1F), std::pair(0x7F, 0x9F), std::pair(0x061C, 0x061C),
        std::pair(0x200E, 0x200F), std::pair(0x2028, 0x202E), std::pair(0x2066, 0x2069)})
    if (character >= static_cast<char32_t>(first) && character <= static_cast<char32_t>(last))
      return true;
  return false;
}

// The first thing in text that a terminal must not get, in words; empty when all of
// it may be shown. Lines end with a line break and do not begin as a forged one,
// unless it is a document, which may have any lines, and tabs.
inline std::string harmIn(std::string_view text, bool document = false)
{
  std::size_t line = 1;
  bool atStart = true;
  while (!text.empty())
  {
    if (atStart && !document && text.starts_with(FORGED))
      return "line " + std::to_string(line) + " is forged";
    atStart = text.front() == '\n';
    line += atStart ? 1 : 0;
    char32_t character = 0;
    std::size_t const length = Quillon::Tessarine::Ozf::decodeUtf8(text, character);
    bool const ofDocument = document && character == U'\t';
    if (length == 0 || (!atStart && !ofDocument && isHarmful(character)))
    {
      std::string what;
      Quillon::Tessarine::Ozf::appendHex(what, " ", text.substr(0, length == 0 ? 1 : length));
      return "line " + std::to_string(line) + " holds" + what;
    }
    text.remove_prefix(length);
  }
  return atStart || document ? "" : "the last line has no end";
}

} // namespace tqtest
