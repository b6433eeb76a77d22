// Text on its way into XML.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"

#include <iosfwd>
#include <string>

namespace Quillon::Tessarine::Ozf
{

// A text escaped for element content and attribute values alike: '&', '<',
// '>', '"' and ''' become entities, tab, line feed and carriage return become
// character references, as does every character that the encoding cannot
// hold. What XML 1.0 cannot hold at all (other control characters, bytes that
// are not UTF-8, U+FFFE, U+FFFF) becomes U+FFFD.
class OZF_EXPORT XmlStr
{
public:
  enum Encoding : int
  {
    UTF_8 = 0,
    ISO_8859_1 = 1,
    US_ASCII = 2
  };

  static constexpr char const* DEFAULT_XML_VERSION = "1.0";

  XmlStr(OzfString const& text, Encoding encoding);
  XmlStr(std::u16string_view text, Encoding encoding);

  // The escaped text; null when the encoding is none of the above.
  char const* text() const noexcept { return m_valid ? m_text.c_str() : nullptr; }

  // Whether a character is written as something else in any of the encodings;
  // of a vector of characters, for each.
  template <class Characters>
  static constexpr auto changes(Characters c) noexcept
  {
    return (c < 0x20) | (c >= 0x80) | (c == '&') | (c == '<') | (c == '>') | (c == '"') |
           (c == '\'');
  }

  // Appends the text, escaped, to out; nothing when the encoding is none of the
  // above.
  static void append(std::string& out, OzfString const& text, Encoding encoding);
  static void append(std::string& out, std::u16string_view text, Encoding encoding);

  // <?xml version="1.0" encoding="UTF-8"?> without a line break.
  static std::ostream& xmlProlog(std::ostream& os, Encoding encoding,
                                 char const* version = DEFAULT_XML_VERSION);

  // <name> and </name>.
  static std::ostream& appendStart(std::ostream& os, char const* name);
  static std::ostream& appendEnd(std::ostream& os, char const* name);

private:
  std::string m_text;
  bool m_valid;
};

// Writes the escaped text; sets failbit when there is none.
OZF_EXPORT std::ostream& operator<<(std::ostream& os, XmlStr const& text);

} // namespace Quillon::Tessarine::Ozf
