// The forms of configuration values, in one place for those who read values
// and those who check them.

#pragma once

#include "ozf/base/AsciiCase.h"

#include <charconv>
#include <optional>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

inline std::optional<bool> parseBoolean(std::string_view text)
{
  for (char const* word : {"true", "yes", "on", "1"})
    if (equalIgnoringCase(text, word))
      return true;
  for (char const* word : {"false", "no", "off", "0"})
    if (equalIgnoringCase(text, word))
      return false;
  return {};
}

inline std::optional<long> parseInteger(std::string_view text, long low, long high)
{
  long number = 0;
  char const* const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < low || number > high)
    return {};
  return number;
}

} // namespace Quillon::Tessarine::Ozf
