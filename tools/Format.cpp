#include "tools/Format.h"

#include "ozf/base/MetadataConverter.h"
#include "ozf/base/OzfString.h"

#include <array>
#include <cstdio>
#include <cwchar>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct TypeName
{
  AuthorityType type;
  char const* name;
};

constexpr std::array<TypeName, 5> TYPE_NAMES{{{AT_ANYANDALL, "any"},
                                              {AT_TQUSERVER, "server"},
                                              {AT_TQUCLIENT, "client"},
                                              {AT_EXTSRC, "external"},
                                              {AT_REMOTEPULL, "remotepull"}}};

// Columns of one character; control characters, which have none, count as one
// so that they are not overlooked.
std::size_t columns(char32_t character)
{
  int const width = wcwidth(static_cast<wchar_t>(character));
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

// Calls use(sequence, columns) for every character of text until it says false.
template <class Use>
void eachCharacter(std::string_view text, Use use)
{
  while (!text.empty())
  {
    char32_t character = 0;
    std::size_t length = decodeUtf8(text, character);
    std::size_t const width = length == 0 ? 1 : columns(character);
    length = length == 0 ? 1 : length;
    if (!use(text.substr(0, length), width))
      return;
    text.remove_prefix(length);
  }
}

} // namespace

std::string formatSize(std::uint64_t bytes)
{
  static constexpr char const* UNITS[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(UNITS))
  {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 || value >= 9.95 ? "%.0f %s" : "%.1f %s", value,
                UNITS[unit]);
  return text;
}

std::string formatSpan(std::int64_t seconds)
{
  struct Unit
  {
    std::int64_t seconds;
    char letter;
  };
  static constexpr Unit UNITS[] = {{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}};
  for (std::size_t i = 0; i + 1 < std::size(UNITS); ++i)
    if (seconds >= UNITS[i].seconds)
      return std::to_string(seconds / UNITS[i].seconds) + UNITS[i].letter + ' ' +
             std::to_string(seconds % UNITS[i].seconds / UNITS[i + 1].seconds) +
             UNITS[i + 1].letter;
  return std::to_string(seconds) + 's';
}

std::string formatAge(OzfObjTime const& time, OzfObjTime const& now)
{
  if (time.isZero())
    return "-";
  if (time >= OzfObjTime::max())
    return "never";
  if (time > now)
    return "in " + formatSpan(time.seconds() - now.seconds());
  return formatSpan(now.seconds() - time.seconds());
}

std::string formatType(AuthorityType type)
{
  for (auto const& [value, name] : TYPE_NAMES)
    if (value == type)
      return name;
  return std::to_string(static_cast<int>(type));
}

bool parseType(std::string const& text, AuthorityType& type)
{
  unsigned number = 0;
  bool const isNumber = MetadataConverter::convert(text, number);
  for (auto const& [value, name] : TYPE_NAMES)
    if (text == name || (isNumber && number == static_cast<unsigned>(value)))
    {
      type = value;
      return true;
    }
  return false;
}

std::size_t displayWidth(std::string_view text)
{
  std::size_t total = 0;
  eachCharacter(text,
                [&total](std::string_view, std::size_t width)
                {
                  total += width;
                  return true;
                });
  return total;
}

std::string cutToWidth(std::string const& text, std::size_t width)
{
  if (displayWidth(text) <= width)
    return text;
  std::string_view const dots = std::string_view("...").substr(0, width);
  std::string result;
  std::size_t used = dots.size();
  eachCharacter(text,
                [&](std::string_view sequence, std::size_t characterWidth)
                {
                  if (used + characterWidth > width)
                    return false;
                  used += characterWidth;
                  result += sequence;
                  return true;
                });
  return result.append(dots);
}

} // namespace tqdiscoctl
