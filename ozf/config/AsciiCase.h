// Letter case of host names and key words: ASCII letters only, whatever the
// process's locale.

#pragma once

#include <algorithm>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

constexpr char asciiLower(char c) noexcept
{
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool equalIgnoringCase(std::string_view a, std::string_view b) noexcept
{
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

} // namespace Quillon::Tessarine::Ozf
