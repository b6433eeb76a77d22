// Text of the product: a value that holds UTF-8 bytes.

#pragma once

#include "ozf/base/CodePage.h"
#include "ozf/base/Export.h"

#include <compare>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

class OZF_EXPORT OzfString
{
public:
  OzfString() = default;
  OzfString(std::string text, CodePage page = CodePage::Utf8);
  OzfString(char const* text, CodePage page = CodePage::Utf8); // null is empty

  // From the UTF-16 of the XML parser; unpaired surrogates become U+FFFD.
  explicit OzfString(std::u16string_view text);

  std::size_t size() const noexcept { return m_text.size(); }
  bool empty() const noexcept { return m_text.empty(); }
  char const* c_str() const noexcept { return m_text.c_str(); }
  std::string const& str() const noexcept { return m_text; }

  // UTF-16 for the XML parser; bytes that are not UTF-8 become U+FFFD.
  std::u16string toUtf16() const;

  // Byte order.
  auto operator<=>(OzfString const&) const = default;
  bool operator==(OzfString const&) const = default;

private:
  std::string m_text;
};

OZF_EXPORT std::ostream& operator<<(std::ostream& os, OzfString const& text);

// Appends UTF-16 as UTF-8 to out; unpaired surrogates become U+FFFD.
OZF_EXPORT void appendUtf8(std::string& out, std::u16string_view text);

// The length in bytes (1 to 4) of the well-formed UTF-8 sequence at the start
// of text, or 0 when there is none. On success codePoint receives the
// character. Over-long forms, surrogates and values above U+10FFFF are refused.
OZF_EXPORT std::size_t decodeUtf8(std::string_view text, char32_t& codePoint) noexcept;

} // namespace Quillon::Tessarine::Ozf
