#include "ozf/xml/QueryNumber.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

std::optional<long double> parseQueryNumber(std::string_view text)
{
  static constexpr long double KILO = 1000;
  static constexpr long double KIBI = 1024;
  static constexpr std::pair<std::string_view, long double> UNITS[] = {
      {"", 1},
      {"B", 1},
      {"K", KIBI},
      {"KiB", KIBI},
      {"M", KIBI * KIBI},
      {"MiB", KIBI * KIBI},
      {"G", KIBI * KIBI * KIBI},
      {"GiB", KIBI * KIBI * KIBI},
      {"T", KIBI * KIBI * KIBI * KIBI},
      {"TiB", KIBI * KIBI * KIBI * KIBI},
      {"P", KIBI * KIBI * KIBI * KIBI * KIBI},
      {"PiB", KIBI * KIBI * KIBI * KIBI * KIBI},
      {"KB", KILO},
      {"MB", KILO * KILO},
      {"GB", KILO * KILO * KILO},
      {"TB", KILO * KILO * KILO * KILO},
      {"PB", KILO * KILO * KILO * KILO * KILO},
      {"s", 1},
      {"m", 60},
      {"h", 60 * 60},
      {"d", 24 * 60 * 60},
      {"w", 7 * 24 * 60 * 60},
  };
  bool const negative = text.starts_with('-');
  if (negative || text.starts_with('+'))
    text.remove_prefix(1);
  // from_chars would also take "inf", "nan" and a second sign.
  if (text.empty() || text.front() < '0' || text.front() > '9')
    return std::nullopt;
  long double number = 0;
  auto const [end, failure] =
      std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (failure != std::errc())
    return std::nullopt;
  std::string_view const rest(end, static_cast<std::size_t>(text.data() + text.size() - end));
  // Divided, since a hundredth is no binary number: 80% is what 8 / 10 is.
  if (rest == "%")
    return (negative ? -number : number) / 100;
  for (auto const& [unit, factor] : UNITS)
    if (rest == unit)
      return (negative ? -number : number) * factor;
  return std::nullopt;
}

bool looksLikeNumberWithUnit(std::string_view text)
{
  auto const letters = text.find_first_not_of("+-.0123456789");
  auto const isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  return letters != std::string_view::npos && letters > 0 && text.size() - letters <= 3 &&
         std::all_of(text.begin() + static_cast<std::ptrdiff_t>(letters), text.end(), isLetter);
}

bool looksLikeCalculation(std::string_view text)
{
  auto const sign = text.find_first_of("*/");
  if (sign == std::string_view::npos || sign == 0 ||
      text.find_first_of("*/", sign + 1) != text.npos)
    return false;
  auto const isName = [](std::string_view part)
  { return !part.empty() && std::isalpha(static_cast<unsigned char>(part.front())) != 0; };
  std::string_view const left = text.substr(0, sign);
  std::string_view const right = text.substr(sign + 1);
  return (isName(left) && parseQueryNumber(right)) || (parseQueryNumber(left) && isName(right));
}

} // namespace Quillon::Tessarine::Ozf
