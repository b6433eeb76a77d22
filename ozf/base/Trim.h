#pragma once

#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// text without the white space of XML around it.
inline std::string_view trimmed(std::string_view text)
{
  constexpr std::string_view WHITE = " \t\r\n";
  auto const first = text.find_first_not_of(WHITE);
  if (first == std::string_view::npos)
    return {};
  return text.substr(first, text.find_last_not_of(WHITE) - first + 1);
}

} // namespace Quillon::Tessarine::Ozf
