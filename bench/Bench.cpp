#include "bench/Bench.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>

namespace tqbench
{
namespace
{

nlohmann::json orNull(std::optional<double> const& value)
{
  return value ? nlohmann::json(*value) : nlohmann::json();
}

std::optional<double> orNothing(nlohmann::json const& json)
{
  return json.is_null() ? std::nullopt : std::optional<double>(json.get<double>());
}

} // namespace

void to_json(nlohmann::json& json, Row const& row)
{
  json = {{"work", row.work},           {"unit", row.unit},
          {"value", row.value},         {"floorName", row.floorName},
          {"floor", orNull(row.floor)}, {"target", orNull(row.target)}};
  json["ratio"] = row.floor ? nlohmann::json(row.value / *row.floor) : nlohmann::json();
}

void from_json(nlohmann::json const& json, Row& row)
{
  json.at("work").get_to(row.work);
  json.at("unit").get_to(row.unit);
  // A side that was left out has no figure, which JSON writes as null.
  json.at("floorName").get_to(row.floorName);
  row.value = orNothing(json.at("value")).value_or(std::numeric_limits<double>::quiet_NaN());
  row.floor = orNothing(json.at("floor"));
  row.target = orNothing(json.at("target"));
}

double median(std::vector<double> values)
{
  require(!values.empty(), "a median of nothing");
  auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double timed(std::function<void()> const& work)
{
  auto const start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void require(bool condition, char const* what)
{
  if (!condition)
    throw std::runtime_error(what);
}

std::vector<double> alternate(Settings const& settings, std::vector<Side> const& sides, int rounds)
{
  std::vector<std::vector<double>> shares(sides.size());
  std::vector<double> totals;
  for (int round = 0; round <= rounds; ++round)
  {
    std::vector<std::optional<double>> times(sides.size());
    double total = 0;
    for (std::size_t i = 0; i < sides.size(); ++i)
      if (settings.side.empty() || settings.side == sides[i].name)
        total += times[i].emplace(sides[i].round());
    if (round == 0)
      continue;
    totals.push_back(total);
    for (std::size_t i = 0; i < sides.size(); ++i)
      if (times[i])
        shares[i].push_back(*times[i] / total);
  }
  std::vector<double> medians;
  for (auto& share : shares)
    medians.push_back(share.empty() ? std::numeric_limits<double>::quiet_NaN()
                                    : median(std::move(share)) * median(totals));
  return medians;
}

} // namespace tqbench
