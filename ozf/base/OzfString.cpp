#include "ozf/base/OzfString.h"

#include "ozf/base/AsciiRun.h"

#include <ostream>

namespace Quillon::Tessarine::Ozf
{
namespace
{

constexpr char32_t REPLACEMENT = 0xFFFD;

bool isHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }

bool isLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

void appendPoint(std::string& text, char32_t point)
{
  auto const tail = [&](unsigned shift)
  { text += static_cast<char>(0x80 | ((point >> shift) & 0x3F)); };

  if (point < 0x80)
    text += static_cast<char>(point);
  else if (point < 0x800)
  {
    text += static_cast<char>(0xC0 | (point >> 6));
    tail(0);
  }
  else if (point < 0x10000)
  {
    text += static_cast<char>(0xE0 | (point >> 12));
    tail(6);
    tail(0);
  }
  else
  {
    text += static_cast<char>(0xF0 | (point >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
}

} // namespace

OzfString::OzfString(std::string text, CodePage) : m_text(std::move(text)) {}

OzfString::OzfString(char const* text, CodePage) : m_text(text != nullptr ? text : "") {}

OzfString::OzfString(std::u16string_view text) { appendUtf8(m_text, text); }

void appendUtf8(std::string& out, std::u16string_view text)
{
  text.remove_prefix(appendAscii(out, text, [](auto units) { return units >= 0x80; }));
  for (std::size_t i = 0; i < text.size(); ++i)
  {
    char32_t point = text[i];
    if (isHighSurrogate(point) && i + 1 < text.size() && isLowSurrogate(text[i + 1]))
      point = 0x10000 + ((point - 0xD800) << 10) + (text[++i] - 0xDC00u);
    else if (isHighSurrogate(point) || isLowSurrogate(point))
      point = REPLACEMENT;
    appendPoint(out, point);
  }
}

std::u16string OzfString::toUtf16() const
{
  std::u16string result;
  result.reserve(m_text.size());
  std::string_view rest(m_text);
  while (!rest.empty())
  {
    char32_t point = REPLACEMENT;
    std::size_t const length = decodeUtf8(rest, point);
    rest.remove_prefix(length != 0 ? length : 1);
    if (point < 0x10000)
      result += static_cast<char16_t>(point);
    else
    {
      result += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
      result += static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
    }
  }
  return result;
}

std::ostream& operator<<(std::ostream& os, OzfString const& text) { return os << text.str(); }

std::size_t decodeUtf8(std::string_view text, char32_t& codePoint) noexcept
{
  if (text.empty())
    return 0;
  auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char const lead = byte(0);
  if (lead < 0x80)
  {
    codePoint = lead;
    return 1;
  }

  std::size_t length = 0;
  char32_t point = 0;
  char32_t smallest = 0;
  if ((lead & 0xE0) == 0xC0)
  {
    length = 2;
    point = lead & 0x1Fu;
    smallest = 0x80;
  }
  else if ((lead & 0xF0) == 0xE0)
  {
    length = 3;
    point = lead & 0x0Fu;
    smallest = 0x800;
  }
  else if ((lead & 0xF8) == 0xF0)
  {
    length = 4;
    point = lead & 0x07u;
    smallest = 0x10000;
  }
  else
    return 0;

  if (text.size() < length)
    return 0;
  for (std::size_t i = 1; i < length; ++i)
  {
    if ((byte(i) & 0xC0) != 0x80)
      return 0;
    point = (point << 6) | (byte(i) & 0x3Fu);
  }
  if (point < smallest || point > 0x10FFFF || isHighSurrogate(point) || isLowSurrogate(point))
    return 0;
  codePoint = point;
  return length;
}

} // namespace Quillon::Tessarine::Ozf
