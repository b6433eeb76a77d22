// explorer: what finds the facts of a host, and how it fares.

#include "tools/AnnouncingHost.h"
#include "tools/Collections.h"
#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/Output.h"
#include "tools/Table.h"

#include "discovery/ExplorerCrashes.h"
#include "discovery/Peers.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/base/SystemError.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char OWN_SERVICE[] = "DiscoveryService";

struct ExplorerOptions
{
  std::string host;
  bool json = false;
};

// "-" when there is none.
std::string toldText(Item const& explorer, char const* fact)
{
  std::string const* const value = explorer.find(fact);
  return value == nullptr || value->empty() ? "-" : shown(*value);
}

std::optional<std::int64_t> toldNumber(Item const& explorer, char const* fact)
{
  std::string const* const value = explorer.find(fact);
  return value == nullptr ? std::nullopt : std::optional(std::strtoll(value->c_str(), nullptr, 10));
}

OzfObjTime toldTime(Item const& explorer, char const* fact)
{
  OzfObjTime time;
  if (std::string const* const value = explorer.find(fact))
    MetadataConverter::convert(*value, time, false);
  return time;
}

std::string toldType(Item const& explorer)
{
  return formatType(static_cast<AuthorityType>(toldNumber(explorer, "Type").value_or(0)));
}

// "0.4 ms", "12 ms", "3.2 s", "2m 5s".
std::string formatDuration(std::optional<std::int64_t> microseconds)
{
  if (!microseconds)
    return "-";
  constexpr std::int64_t MILLISECOND = 1000;
  constexpr std::int64_t SECOND = 1000 * MILLISECOND;
  auto const tenths = [&](std::int64_t unit)
  {
    return std::to_string(*microseconds / unit) + '.' +
           std::to_string(*microseconds % unit * 10 / unit);
  };
  if (*microseconds < 10 * MILLISECOND)
    return tenths(MILLISECOND) + " ms";
  if (*microseconds < SECOND)
    return std::to_string(*microseconds / MILLISECOND) + " ms";
  return *microseconds < 100 * SECOND ? tenths(SECOND) + " s" : formatSpan(*microseconds / SECOND);
}

std::string formatGrowth(std::optional<std::int64_t> bytes)
{
  if (!bytes)
    return "-";
  return (*bytes < 0 ? "-" : "") + formatSize(static_cast<std::uint64_t>(std::llabs(*bytes)));
}

nlohmann::json numberOrNull(std::optional<std::int64_t> number)
{
  return number ? nlohmann::json(*number) : nlohmann::json();
}

nlohmann::json explorerJson(Item const& explorer)
{
  return {{"name", explorer.name},
          {"kind", toldText(explorer, "Kind")},
          {"type", toldType(explorer)},
          {"subject", toldText(explorer, "Subject")},
          {"priority", numberOrNull(toldNumber(explorer, "Priority"))},
          {"origin", toldText(explorer, "Origin")},
          {"state", toldText(explorer, "State")},
          {"lastRun", timeOrNull(toldTime(explorer, "LastRun"))},
          {"lastSuccess", timeOrNull(toldTime(explorer, "LastSuccess"))},
          {"microseconds", numberOrNull(toldNumber(explorer, "LastDuration"))},
          {"memoryAdded", numberOrNull(toldNumber(explorer, "LastMemory"))},
          {"result", toldText(explorer, "LastResult")},
          {"inOrder", toldText(explorer, "InOrder") == "yes"},
          {"runs", numberOrNull(toldNumber(explorer, "Runs"))},
          {"failures", numberOrNull(toldNumber(explorer, "Failures"))},
          {"lateRuns", numberOrNull(toldNumber(explorer, "LateRuns"))}};
}

void printExplorerTable(std::vector<Item> const& explorers)
{
  OzfObjTime const now = OzfObjTime::now();
  Table table({{"EXPLORER", Table::TEXT},
               {"KIND", Table::FIXED},
               {"TYPE", Table::FIXED},
               {"LAST RUN", Table::NUMBER},
               {"TOOK", Table::NUMBER},
               {"MEMORY", Table::NUMBER},
               {"LAST RESULT", Table::TEXT},
               {"FROM", Table::TEXT}});
  for (Item const& explorer : explorers)
  {
    OzfObjTime const run = toldTime(explorer, "LastRun");
    table.add({shown(explorer.name), toldText(explorer, "Kind"), toldType(explorer),
               run.isZero() ? "-" : formatAge(run, now) + " ago",
               formatDuration(toldNumber(explorer, "LastDuration")),
               formatGrowth(toldNumber(explorer, "LastMemory")), toldText(explorer, "LastResult"),
               toldText(explorer, "Origin")});
  }
  table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
}

int listExplorers(ExplorerOptions const& options, Session const& session)
{
  Connection connection(session.connection);
  if (int const result = connection.prepare(); result != EXIT_DONE)
    return result;
  std::string const host = options.host.empty() ? nameOfThisHost() : options.host;
  if (Remote::DiscoveryService_var const service = connection.connect(host); CORBA::is_nil(service))
    return connection.whyNotConnected();
  Record record;
  record.subject = host;
  record.authority = EXPLORERS_AUTHORITY;
  Collection const collection = readOwnCollection(record, {host, OWN_SERVICE, AT_TQUCLIENT});
  if (!collection.complete)
  {
    complain("the service at " + shown(host) +
             " does not tell of its explorers: it may be too old; --verbose shows more");
    return EXIT_FAILED;
  }
  if (options.json)
  {
    nlohmann::json explorers = nlohmann::json::array();
    for (Item const& explorer : collection.items)
      explorers.push_back(explorerJson(explorer));
    printJson({{"host", host}, {"explorers", std::move(explorers)}});
  }
  else if (collection.items.empty())
    std::cout << "The service at " << shown(host) << " has no explorers.\n";
  else
    printExplorerTable(collection.items);
  return EXIT_DONE;
}

int enableExplorer(std::string const& name, bool json)
{
  std::string const path = getCrashCountsPath();
  CrashCounts counts = CrashCounts::read(path);
  std::vector<std::string> enabled;
  std::erase_if(counts.counts,
                [&](auto const& known)
                {
                  CrashSuspect const suspect = CrashSuspect::fromText(known.first);
                  bool const meant = suspect.authority == name || suspect.name() == name;
                  if (meant)
                    enabled.push_back(suspect.name() + " (" + suspect.what + ")");
                  return meant;
                });
  if (enabled.empty())
  {
    complain("no explorer of this host has crashed under the name " + shown(name),
             {"What has is in " + path + "."});
    return EXIT_NOTHING;
  }
  if (!counts.write(path))
  {
    complain("cannot write " + path + ": " + errorText(errno));
    return EXIT_FAILED;
  }
  if (json)
    printJson({{"enabled", enabled}});
  else
    for (std::string const& which : enabled)
      std::cout << shown(which) << " may run again.\n";
  return EXIT_DONE;
}

} // namespace

void addExplorerCommands(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<ExplorerOptions>();
  CLI::App* const group =
      application.add_subcommand("explorer", "What finds the facts of a host, and how it fares");
  group->require_subcommand(1);

  CLI::App* const list = group->add_subcommand(
      "list", "Every explorer of this host: where it comes from, its last run and its result");
  list->add_option("--host", options->host, "Those of that host instead")->type_name("HOST");
  list->add_flag("--json", options->json, "As JSON");
  auto const name = std::make_shared<std::string>();
  CLI::App* const enable = group->add_subcommand(
      "enable", "Run an explorer of this host again that is left out because it crashed");
  enable->add_option("NAME", *name, "Its authority, or the library's file name")->required();
  enable->add_flag("--json", options->json, "As JSON");
  enable->callback([name, options, &session]
                   { session.exitCode = enableExplorer(*name, options->json); });

  list->callback([options, &session] { session.exitCode = listExplorers(*options, session); });
  addExplorerTestCommand(*group, session);
}

} // namespace tqdiscoctl
