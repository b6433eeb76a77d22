// What the benchmarks share: settings, rounds that alternate, rows of results.

#pragma once

#include <nlohmann/json.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tqbench
{

struct Settings
{
  std::string directory; // of this benchmark alone, empty at first
  std::string database;  // product root with a large database, only to be read
  std::string program;   // this program
  std::string service;   // tqdisco
  std::string side;      // run this side only, for a tracer or a profiler
  std::size_t records = 100000;
  std::size_t masters = 4; // that tqpublish follows, with the records shared out to them
};

// One line of the table. A row without a floor is a figure of its own; a
// target is the highest ratio allowed, or the highest value without a floor.
struct Row
{
  std::string work;
  std::string unit;
  double value = 0;
  std::string floorName;
  std::optional<double> floor;
  std::optional<double> target;
};

void to_json(nlohmann::json& json, Row const& row);
void from_json(nlohmann::json const& json, Row& row);

// What is compared. A round says how long it took, in seconds.
struct Side
{
  std::string name;
  std::function<double()> round;
};

// Runs one round of each side, then the next of each, and so on, so that
// whatever else the machine does hits all sides alike. The first round of each
// only warms up. The result is, for each side in their order, its median share
// of a round, as seconds of the median round: a rented processor changes its
// speed from one second to the next, by half and more, and only what ran in
// one round can be compared. NaN for a side that the settings leave out.
std::vector<double> alternate(Settings const& settings, std::vector<Side> const& sides, int rounds);

double median(std::vector<double> values);

// Seconds that the work takes.
double timed(std::function<void()> const& work);

// Ends the benchmark with the text when something did not come out as it must:
// a figure for work that failed is worth nothing.
void require(bool condition, char const* what);

std::vector<Row> benchPersist(Settings const& settings);
std::vector<Row> benchEnumerate(Settings const& settings);
std::vector<Row> benchLookup(Settings const& settings);
std::vector<Row> benchParse(Settings const& settings);
std::vector<Row> benchItems(Settings const& settings);
std::vector<Row> benchQuery(Settings const& settings);
std::vector<Row> benchPayload(Settings const& settings);
std::vector<Row> benchWrite(Settings const& settings);
std::vector<Row> benchLargeWrite(Settings const& settings);
std::vector<Row> benchFleetWrites(Settings const& settings);
std::vector<Row> benchList(Settings const& settings);
std::vector<Row> benchIdleConnections(Settings const& settings);
std::vector<Row> benchScale(Settings const& settings);
std::vector<Row> benchServiceMemory(Settings const& settings);
std::vector<Row> benchTls(Settings const& settings);
std::vector<Row> benchReconnect(Settings const& settings);
std::vector<Row> benchRights(Settings const& settings);
std::vector<Row> benchHostile(Settings const& settings);
std::vector<Row> benchGatewayHosts(Settings const& settings);
std::vector<Row> benchGatewayMetrics(Settings const& settings);
std::vector<Row> benchGatewayRest(Settings const& settings);
std::vector<Row> benchGatewayMemory(Settings const& settings);
std::vector<Row> benchPublish(Settings const& settings);

} // namespace tqbench
