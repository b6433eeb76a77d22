// Letter case of names and key words: ASCII letters only, whatever the process's
// locale, in some of which strcasecmp tells "I" from "i".

#pragma once

#include <algorithm>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

constexpr char asciiLower(char c) noexcept
{
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Less than, equal to or greater than zero, by the values of the bytes.
constexpr int compareIgnoringCase(std::string_view a, std::string_view b) noexcept
{
  for (std::size_t at = 0; at < a.size() && at < b.size(); ++at)
  {
    auto const x = static_cast<unsigned char>(asciiLower(a[at]));
    auto const y = static_cast<unsigned char>(asciiLower(b[at]));
    if (x != y)
      return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

constexpr bool equalIgnoringCase(std::string_view a, std::string_view b) noexcept
{
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

} // namespace Quillon::Tessarine::Ozf
