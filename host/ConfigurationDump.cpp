#include "host/ConfigurationDump.h"

#include "ozf/base/Display.h"
#include "ozf/config/Configuration.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <vector>

namespace Host
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Row = std::array<std::string, 4>;

std::string orDash(std::string const& text) { return text.empty() ? "-" : onOneLine(text); }

std::string placeOf(ConfigurationSetting const& setting)
{
  if (!setting.isGiven)
    return setting.byDefault.empty() ? "-" : "default";
  return onOneLine(setting.file) + ':' + std::to_string(setting.line);
}

nlohmann::ordered_json orNull(std::string const& text)
{
  return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

// In columns, as terminals count; a value that is longer than most moves only what is
// behind it.
std::size_t widthOf(std::string const& text)
{
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

} // namespace

std::string settingsAsTable(Configuration const& configuration)
{
  constexpr std::size_t WIDEST = 40;
  std::vector<Row> rows = {{"KEY", "VALUE", "DEFAULT", "FROM"}};
  for (auto const& setting : configuration.settings())
    rows.push_back({onOneLine(setting.key), orDash(setting.value), orDash(setting.byDefault),
                    placeOf(setting)});
  std::array<std::size_t, 4> widths{};
  for (Row const& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::min(WIDEST, std::max(widths[i], widthOf(row[i])));
  std::string text;
  for (Row const& row : rows)
  {
    for (std::size_t i = 0; i + 1 < row.size(); ++i)
      text += row[i] + std::string(widths[i] - std::min(widths[i], widthOf(row[i])) + 2, ' ');
    text += row.back() + '\n';
  }
  return text;
}

std::string settingsAsJson(Configuration const& configuration)
{
  auto result = nlohmann::ordered_json::array();
  for (auto const& setting : configuration.settings())
  {
    nlohmann::ordered_json one;
    one["key"] = setting.key;
    one["value"] = orNull(setting.value);
    one["default"] = orNull(setting.byDefault);
    one["file"] = orNull(setting.file);
    one["line"] =
        setting.line > 0 ? nlohmann::ordered_json(setting.line) : nlohmann::ordered_json();
    one["restart"] = setting.waitsForRestart;
    result.push_back(std::move(one));
  }
  // Names of files may be anything.
  return result.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

} // namespace Host
