#include "ozf/base/MetadataConverter.h"

#include "ozf/base/Trim.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <optional>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{
namespace
{

std::optional<unsigned> digits(std::string_view text)
{
  if (text.empty())
    return std::nullopt;
  std::uint64_t value = 0;
  for (char const c : text)
  {
    if (c < '0' || c > '9')
      return std::nullopt;
    value = value * 10 + static_cast<unsigned>(c - '0');
    if (value > std::numeric_limits<unsigned>::max())
      return std::nullopt;
  }
  return static_cast<unsigned>(value);
}

// The digits after the second's point, scaled to microseconds.
std::optional<unsigned> microseconds(std::string_view text)
{
  if (text.size() > 6)
    return std::nullopt;
  auto value = digits(text);
  for (std::size_t i = text.size(); value && i < 6; ++i)
    *value *= 10;
  return value;
}

} // namespace

bool MetadataConverter::convert(OzfObjTime const& time, std::string& text, bool fraction)
{
  if (time < OzfObjTime() || time > OzfObjTime::max())
    return false;
  std::chrono::sys_seconds const moment{std::chrono::seconds(time.seconds())};
  auto const day = std::chrono::floor<std::chrono::days>(moment);
  std::chrono::year_month_day const date{day};
  std::chrono::hh_mm_ss const clock{moment - day};

  char buffer[64];
  int length = std::snprintf(
      buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()));
  text.assign(buffer, static_cast<std::size_t>(length));
  if (fraction)
  {
    length = std::snprintf(buffer, sizeof buffer, ".%06d", static_cast<int>(time.microseconds()));
    text.append(buffer, static_cast<std::size_t>(length));
  }
  text += 'Z';
  return true;
}

bool MetadataConverter::convert(std::string const& text, OzfObjTime& time, bool fraction)
{
  constexpr std::string_view FORM = "....-..-..T..:..:..";
  std::string_view rest = trimmed(text);
  if (rest.size() <= FORM.size() || rest.back() != 'Z')
    return false;
  rest.remove_suffix(1);
  for (std::size_t i = 0; i < FORM.size(); ++i)
  {
    if (FORM[i] != '.' && rest[i] != FORM[i])
      return false;
  }
  auto const year = digits(rest.substr(0, 4));
  auto const month = digits(rest.substr(5, 2));
  auto const day = digits(rest.substr(8, 2));
  auto const hour = digits(rest.substr(11, 2));
  auto const minute = digits(rest.substr(14, 2));
  auto const second = digits(rest.substr(17, 2));
  if (!year || !month || !day || !hour || !minute || !second)
    return false;

  std::chrono::year_month_day const date{std::chrono::year(static_cast<int>(*year)),
                                         std::chrono::month(*month), std::chrono::day(*day)};
  if (!date.ok() || *year < 1970 || *hour > 23 || *minute > 59 || *second > 59)
    return false;

  rest.remove_prefix(FORM.size());
  unsigned micros = 0;
  if (!rest.empty())
  {
    auto const read = fraction && rest.front() == '.' ? microseconds(rest.substr(1)) : std::nullopt;
    if (!read)
      return false;
    micros = *read;
  }
  auto const moment = std::chrono::sys_days(date) + std::chrono::hours(*hour) +
                      std::chrono::minutes(*minute) + std::chrono::seconds(*second);
  time = OzfObjTime(std::chrono::seconds(moment.time_since_epoch()).count(), micros);
  return true;
}

bool MetadataConverter::convert(std::string const& text, unsigned& value)
{
  auto const read = digits(text);
  if (read)
    value = *read;
  return read.has_value();
}

} // namespace Quillon::Tessarine::Ozf
