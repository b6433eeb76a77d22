#include "ozf/xml/XmlStr.h"

#include "ozf/base/AsciiRun.h"

#include <algorithm>
#include <ostream>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char32_t REPLACEMENT = 0xFFFD;

// The largest character that an encoding holds as it is; 0 when the encoding
// is unknown.
char32_t lastCharacter(XmlStr::Encoding encoding) noexcept
{
  switch (encoding)
  {
  case XmlStr::UTF_8:
    return 0x10FFFF;
  case XmlStr::ISO_8859_1:
    return 0xFF;
  case XmlStr::US_ASCII:
    return 0x7F;
  }
  return 0;
}

char const* encodingName(XmlStr::Encoding encoding) noexcept
{
  switch (encoding)
  {
  case XmlStr::UTF_8:
    return "UTF-8";
  case XmlStr::ISO_8859_1:
    return "ISO-8859-1";
  case XmlStr::US_ASCII:
    return "US-ASCII";
  }
  return nullptr;
}

bool isXmlCharacter(char32_t c) noexcept
{
  if (c < 0x20)
    return c == '\t' || c == '\n' || c == '\r';
  return c < 0xD800 || (c > 0xDFFF && c < 0xFFFE) || (c > 0xFFFF && c <= 0x10FFFF);
}

void appendReference(std::string& out, char32_t c)
{
  constexpr char DIGITS[] = "0123456789ABCDEF";
  out += "&#x";
  int shift = 20;
  while (shift > 0 && (c >> shift) == 0)
    shift -= 4;
  for (; shift >= 0; shift -= 4)
    out += DIGITS[(c >> shift) & 0xF];
  out += ';';
}

void appendUtf8(std::string& out, char32_t c)
{
  if (c < 0x80)
  {
    out += static_cast<char>(c);
    return;
  }
  if (c < 0x800)
    out += static_cast<char>(0xC0 | (c >> 6));
  else
  {
    if (c < 0x10000)
      out += static_cast<char>(0xE0 | (c >> 12));
    else
    {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    }
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
  }
  out += static_cast<char>(0x80 | (c & 0x3F));
}

void appendCharacter(std::string& out, char32_t c, XmlStr::Encoding encoding, char32_t last)
{
  if (!isXmlCharacter(c))
    c = REPLACEMENT;
  switch (c)
  {
  case '&':
    out += "&amp;";
    return;
  case '<':
    out += "&lt;";
    return;
  case '>':
    out += "&gt;";
    return;
  case '"':
    out += "&quot;";
    return;
  case '\'':
    out += "&apos;";
    return;
  default:
    break;
  }
  if (c < 0x20 || c > last)
    appendReference(out, c);
  else if (encoding == XmlStr::UTF_8)
    appendUtf8(out, c);
  else
    out += static_cast<char>(c);
}

} // namespace

XmlStr::XmlStr(OzfString const& text, Encoding encoding) : m_valid(lastCharacter(encoding) != 0)
{
  append(m_text, text, encoding);
}

void XmlStr::append(std::string& out, OzfString const& text, Encoding encoding)
{
  char32_t const last = lastCharacter(encoding);
  if (last == 0)
    return;
  std::string_view rest = text.str();
  for (;;)
  {
    // Nearly every text is one such run.
    auto const end = std::find_if(rest.begin(), rest.end(),
                                  [](char c) { return changes(static_cast<unsigned char>(c)); });
    auto const run = static_cast<std::size_t>(end - rest.begin());
    out.append(rest, 0, run);
    rest.remove_prefix(run);
    if (rest.empty())
      return;

    char32_t c = REPLACEMENT;
    std::size_t const length = decodeUtf8(rest, c);
    appendCharacter(out, length == 0 ? REPLACEMENT : c, encoding, last);
    rest.remove_prefix(length == 0 ? 1 : length);
  }
}

void XmlStr::append(std::string& out, std::u16string_view text, Encoding encoding)
{
  if (lastCharacter(encoding) == 0)
    return;
  // Nearly every text stays as it is.
  text.remove_prefix(appendAscii(out, text, [](auto units) { return changes(units); }));
  if (!text.empty())
    append(out, OzfString(text), encoding);
}

XmlStr::XmlStr(std::u16string_view text, Encoding encoding) : XmlStr(OzfString(text), encoding) {}

std::ostream& XmlStr::xmlProlog(std::ostream& os, Encoding encoding, char const* version)
{
  char const* const name = encodingName(encoding);
  if (name == nullptr)
    os.setstate(std::ios_base::failbit);
  else
    os << "<?xml version=\"" << version << "\" encoding=\"" << name << "\"?>";
  return os;
}

std::ostream& XmlStr::appendStart(std::ostream& os, char const* name)
{
  return os << '<' << name << '>';
}

std::ostream& XmlStr::appendEnd(std::ostream& os, char const* name)
{
  return os << "</" << name << '>';
}

std::ostream& operator<<(std::ostream& os, XmlStr const& text)
{
  if (text.text() == nullptr)
    os.setstate(std::ios_base::failbit);
  else
    os << text.text();
  return os;
}

} // namespace Quillon::Tessarine::Ozf
