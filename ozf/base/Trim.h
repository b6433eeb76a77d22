#pragma once

#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// text without the white space around it; that of XML unless told otherwise.
inline std::string_view trimmed(std::string_view text, std::string_view white = " \t\r\n")
{
  auto const first = text.find_first_not_of(white);
  if (first == std::string_view::npos)
    return {};
  return text.substr(first, text.find_last_not_of(white) - first + 1);
}

} // namespace Quillon::Tessarine::Ozf
