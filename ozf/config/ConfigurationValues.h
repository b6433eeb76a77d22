// The forms of configuration values, in one place for those who read values
// and those who check them.

#pragma once

#include "ozf/base/AsciiCase.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// Seconds, of "90s", "15m", "1h", "2d", "1w" or a number alone; at most ten years.
inline std::optional<long> parseSeconds(std::string_view text)
{
  constexpr std::string_view UNITS = "smhdw";
  constexpr long SECONDS[] = {1, 60, 3600, 86400, 604800};
  constexpr long MOST = 3653L * 86400;
  long factor = 1;
  if (!text.empty())
    if (auto const unit = UNITS.find(text.back()); unit != std::string_view::npos)
    {
      factor = SECONDS[unit];
      text.remove_suffix(1);
    }
  auto const number = parseInteger(text, 1, MOST / factor);
  return number ? std::optional(*number * factor) : std::nullopt;
}

// The entries of a value that holds several, with commas or white space between them.
inline std::vector<std::string> entriesOf(std::string_view value)
{
  constexpr char SEPARATORS[] = ", \t";
  std::vector<std::string> entries;
  for (std::size_t at = value.find_first_not_of(SEPARATORS); at != std::string_view::npos;)
  {
    std::size_t const end = std::min(value.find_first_of(SEPARATORS, at), value.size());
    entries.emplace_back(value.substr(at, end - at));
    at = value.find_first_not_of(SEPARATORS, end);
  }
  return entries;
}

// The shortest text of so many seconds: "90s", "15m".
inline std::string spanText(long seconds)
{
  for (auto const& [factor, unit] :
       {std::pair{604800L, "w"}, {86400L, "d"}, {3600L, "h"}, {60L, "m"}})
    if (seconds != 0 && seconds % factor == 0)
      return std::to_string(seconds / factor) + unit;
  return std::to_string(seconds) + "s";
}

// A pattern that keeps the whole log out was not meant.
inline bool isLogPattern(std::string_view text)
{
  constexpr auto LEAST = 5;
  return std::count_if(text.begin(), text.end(), [](char c) { return c != '*' && c != ' '; }) >=
         LEAST;
}

} // namespace Quillon::Tessarine::Ozf
