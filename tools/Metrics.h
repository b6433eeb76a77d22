// What the service does in the form that Prometheus reads (docs/metrics.md).
//
// Whoever has the list of discoveries, and what a service tells of itself, makes Figures
// of them and asks for the text: nothing here asks a service, or waits.

#pragma once

#include "ozf/base/OzfObjTime.h"
#include "tools/Fleet.h"
#include "tools/ServiceStates.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <prometheus/metric_family.h>
#include <string>
#include <utility>
#include <vector>

namespace tqdiscoctl
{

// Of the list. How many hosts there are does not change its size.
struct FleetFigures
{
  std::map<Fleet::Authority, std::size_t> discoveries;
  std::size_t hosts = 0;
  std::size_t silent = 0;
  std::size_t expiring = 0;                         // within the hour
  Quillon::Tessarine::Ozf::OzfObjTime oldestReport; // zero: none
};

// silent: what became of fleet.silent().
FleetFigures figuresOf(Fleet const& fleet, SilentHosts const& silent);

// What one service tells of itself; what it does not tell is absent, or zero.
struct ServiceFigures
{
  using Count = std::optional<std::uint64_t>;
  using Time = Quillon::Tessarine::Ozf::OzfObjTime;

  struct Explorer
  {
    std::string name;
    std::string type; // "client"
    Time lastRun;
    Time lastSuccess;
    std::optional<double> seconds; // that the last run took
    Count runs;
    Count failures;
    bool failing = false; // at its last run
  };

  // Up to so many seconds; those that took longer are in the number of all.
  struct WritesWithin
  {
    double seconds;
    Count count;
  };

  std::string version;
  Time told; // when it told this
  Time start;
  Time certificateEnd;
  Count stored; // discoveries in its database
  Count connections;
  Count connectionsTaken;
  Count connectionsRefused;
  Count iterators;
  Count writers;
  Count writesStored;
  Count writesOutranked;
  Count writesFailed;
  Count writesTimed;
  std::optional<double> writeSeconds; // of all that were timed
  std::array<WritesWithin, 5> writesWithin = {
      {{0.001, {}}, {0.01, {}}, {0.1, {}}, {1, {}}, {10, {}}}};
  std::vector<Explorer> explorers;
  std::vector<std::pair<std::string, std::uint64_t>> limitsMet; // by key, how often
};

ServiceFigures figuresOf(ServiceState const& state);

struct Figures
{
  // The name under which a reader of several masters tells theirs apart; empty for none.
  std::string master;
  bool up = false;                       // the service that was asked answered
  std::optional<FleetFigures> fleet;     // none where the list was not read
  std::optional<ServiceFigures> service; // none where it does not tell of itself
};

// Of several masters, each with its name.
std::vector<prometheus::MetricFamily> gather(std::vector<Figures> const& all);

// In the text format; a few milliseconds at most, whatever the fleet's size.
std::string metricsText(std::vector<prometheus::MetricFamily> const& families);

} // namespace tqdiscoctl
