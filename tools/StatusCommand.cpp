// status: is the service up, and what do the services tell of themselves?

#include "tools/AnnouncingHost.h"
#include "tools/Commands.h"
#include "tools/Fleet.h"
#include "tools/Format.h"
#include "tools/ItemJson.h"
#include "tools/Output.h"
#include "tools/ReaderGone.h"
#include "tools/ServiceStates.h"
#include "tools/Table.h"
#include "tools/TypeNames.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <set>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct StatusOptions
{
  bool details = false;
  bool json = false;
};

nlohmann::json toJson(Item const& item, OzfQuery const& description)
{
  return {{"name", item.name}, {"facts", factsObject(item.facts, description)}};
}

nlohmann::json toJson(ServiceState const& state, OzfQuery const& description)
{
  nlohmann::json explorers = nlohmann::json::array();
  for (Item const& explorer : state.explorers)
    explorers.push_back(toJson(explorer, description));
  nlohmann::json limits = nlohmann::json::array();
  for (Item const& limit : state.limits)
    limits.push_back(toJson(limit, description));
  nlohmann::json clones = nlohmann::json::array();
  for (Item const& clone : state.clones)
    clones.push_back(toJson(clone, description));
  nlohmann::json result = toJson(state.record);
  result["complete"] = state.complete;
  result["service"] = toJson(state.service, description);
  result["explorers"] = std::move(explorers);
  result["limits"] = std::move(limits);
  result["clones"] = std::move(clones);
  return result;
}

nlohmann::json toJson(SilentHosts const& silent)
{
  nlohmann::json hosts = nlohmann::json::array();
  for (auto const& [name, latest] : silent)
    hosts.push_back({{"host", name}, {"latestTime", timeOrNull(latest)}});
  return hosts;
}

// Whether they come from several masters.
bool isOfSeveral(std::vector<ServiceState> const& states)
{
  return !states.empty() && !masterOf(states.front().record).empty();
}

// The day on which the certificate ends, or the first that it rests on.
std::string certificateEnd(ServiceState const& state)
{
  constexpr std::size_t DAY = 10; // of what begins with it
  constexpr char END[] = "CertificateEnd";
  return timeOf(state.service, END).isZero() ? "-" : fact(state.service, END).substr(0, DAY);
}

void printServices(std::vector<ServiceState> const& states, SilentHosts const& silent,
                   OzfObjTime const& now)
{
  // Where there is little room, what differs least from host to host is left to
  // --json.
  constexpr std::size_t ROOMY = 80;
  constexpr std::size_t NARROW = 60;
  constexpr std::size_t COLUMN = 12; // of those of masters, and of the certificates' ends
  std::size_t const width = terminalWidth(STDOUT_FILENO);
  bool const several = isOfSeveral(states);
  // Where nobody has TLS there is no end to tell.
  bool const anyEnds =
      std::any_of(states.begin(), states.end(),
                  [](ServiceState const& state) { return certificateEnd(state) != "-"; });
  std::size_t const more = several && anyEnds ? COLUMN : 0;
  bool const roomy = width == 0 || width >= ROOMY + more;
  bool const ends = anyEnds && (width == 0 || width >= NARROW + more);
  Table::Header header{{"HOST", Table::TEXT}, {"ROLE", Table::FIXED}};
  if (roomy)
    header.emplace_back("VERSION", Table::FIXED);
  header.emplace_back("UP", Table::NUMBER);
  header.emplace_back("STORED", Table::NUMBER);
  if (roomy)
    header.emplace_back("EXPLORERS", Table::NUMBER);
  header.emplace_back("FAILED", Table::NUMBER);
  if (ends)
    header.emplace_back("TLS UNTIL", Table::FIXED);
  header.emplace_back("AGE", Table::NUMBER);
  Table table(withMaster(several, header));
  auto const add = [&table, roomy, ends](std::string const& master, std::vector<std::string> cells)
  {
    if (!ends)
      cells.erase(cells.begin() + 7);
    if (!roomy)
    {
      cells.erase(cells.begin() + 5);
      cells.erase(cells.begin() + 2);
    }
    table.add(withMaster(master, std::move(cells)));
  };
  for (ServiceState const& state : states)
    add(masterOf(state.record),
        {state.record.subject, fact(state.service, "Role"), fact(state.service, "Version"),
         formatAge(timeOf(state.service, "StartTime"), now),
         fact(state.service, "StoredDiscoveries"), std::to_string(state.explorers.size()),
         std::to_string(countFailed(state)), certificateEnd(state),
         formatAge(state.record.discovered, now)});
  for (auto const& [name, latest] : silent)
    add(several ? "-" : "", {name, "-", "-", "silent", "-", "-", "-", "-", "-"});
  table.print(std::cout, width, terminalStyles(STDOUT_FILENO));
}

void printExplorers(std::vector<ServiceState> const& states, bool all, OzfObjTime const& now)
{
  Table table(withMaster(isOfSeveral(states), {{"HOST", Table::TEXT},
                                               {"EXPLORER", Table::TEXT},
                                               {"KIND", Table::FIXED},
                                               {"TYPE", Table::FIXED},
                                               {"LAST RUN", Table::NUMBER},
                                               {"LAST RESULT", Table::TEXT}}));
  bool any = false;
  std::set<AuthorityType> types;
  for (ServiceState const& state : states)
    for (Item const& explorer : state.explorers)
    {
      if (!all && !hasFailed(explorer))
        continue;
      OzfObjTime const run = timeOf(explorer, "LastRun");
      table.add(
          withMaster(masterOf(state.record),
                     {state.record.subject, shown(explorer.name), fact(explorer, "Kind"),
                      fact(explorer, "Type"), run.isZero() ? "-" : formatAge(run, now) + " ago",
                      fact(explorer, "LastResult")}));
      any = true;
      if (AuthorityType type{}; parseType(fact(explorer, "Type"), type))
        types.insert(type);
    }
  if (!any)
    return;
  std::cout << '\n';
  table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
  explainTypes(types);
}

void printLimits(std::vector<ServiceState> const& states, OzfObjTime const& now)
{
  Table table(withMaster(isOfSeveral(states), {{"HOST", Table::TEXT},
                                               {"LIMIT MET", Table::FIXED},
                                               {"SET TO", Table::NUMBER},
                                               {"TIMES", Table::NUMBER},
                                               {"LAST PEER", Table::TEXT},
                                               {"LAST", Table::NUMBER}}));
  bool any = false;
  for (ServiceState const& state : states)
    for (Item const& limit : state.limits)
    {
      OzfObjTime const last = timeOf(limit, "LastMet");
      table.add(withMaster(masterOf(state.record),
                           {state.record.subject, shown(limit.name), fact(limit, "Value"),
                            fact(limit, "TimesMet"), fact(limit, "LastPeer"),
                            last.isZero() ? "-" : formatAge(last, now) + " ago"}));
      any = true;
    }
  if (!any)
    return;
  std::cout << '\n';
  table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
}

// Those that have to be renewed, a few by name.
void complainOfCertificates(std::vector<ServiceState> const& states, OzfObjTime const& now)
{
  constexpr std::int64_t SOON = 30 * 86400; // seconds
  constexpr std::size_t MOST_NAMED = 5;
  std::size_t count = 0;
  std::string named;
  for (ServiceState const& state : states)
  {
    OzfObjTime const end = timeOf(state.service, "CertificateEnd");
    if (end.isZero() || end.seconds() - now.seconds() > SOON)
      continue;
    if (++count > MOST_NAMED)
      continue;
    named += (named.empty() ? "" : ", ") + shown(state.record.subject) + " on " +
             fact(state.service, "CertificateEnd");
    if (std::string const authority = fact(state.service, "EndingAuthority"); authority != "-")
      named += " (that of its authority, " + authority + ")";
  }
  if (count != 0)
    complain(counted(count, "certificate ends", "certificates end") + " within 30 days: " + named +
             (count > MOST_NAMED ? " and more" : "") +
             ". Without a new one other hosts refuse these from then on");
}

// Those whose configuration says what they do not go by, a few by name.
void complainOfRestarts(std::vector<ServiceState> const& states)
{
  constexpr std::size_t MOST_NAMED = 5;
  std::size_t count = 0;
  std::string named;
  for (ServiceState const& state : states)
    if (state.service.find("AwaitsRestart") != nullptr && ++count <= MOST_NAMED)
      named += (named.empty() ? "" : "; ") + shown(state.record.subject) + " with " +
               fact(state.service, "AwaitsRestart");
  if (count != 0)
    complain(counted(count, "service waits", "services wait") +
             " for a restart to take changed keys of its configuration: " + named +
             (count > MOST_NAMED ? " and more" : ""));
}

// Names under which several machines report, a few with their identifiers.
void complainOfClones(std::vector<ServiceState> const& states)
{
  constexpr std::size_t MOST_NAMED = 5;
  std::size_t count = 0;
  std::string named;
  for (ServiceState const& state : states)
    for (Item const& clone : state.clones)
      if (++count <= MOST_NAMED)
        named +=
            (named.empty() ? "" : "; ") + shown(clone.name) + " has " + fact(clone, "Machines");
  if (count != 0)
    complain("several hosts report under " + counted(count, "name", "names") +
             ", and each replaces what the others have found: " + named +
             (count > MOST_NAMED ? "; and more" : "") +
             ". \"tqdiscoctl show HOST machine.IDENTIFIER\" tells of each; give one of them a name "
             "of its own");
}

// What ended services before they were started, a few by name.
void complainOfCrashes(std::vector<ServiceState> const& states)
{
  constexpr std::size_t MOST_NAMED = 5;
  std::size_t count = 0;
  for (ServiceState const& state : states)
    if (std::string const explorers = fact(state.service, "CrashedBy"); explorers != "-")
    {
      if (++count <= MOST_NAMED)
        complain("the service on " + shown(state.record.subject) +
                 " ended without being stopped before its last start, in explorer " + explorers);
    }
  if (count > MOST_NAMED)
    complain("and so did " + counted(count - MOST_NAMED, "other", "others"));
}

// That a host reports nothing yet.
void tellAnnouncing(std::optional<AnnouncingHost> const& host, StatusOptions const& options)
{
  if (options.json || !host || !host->isPending())
    return;
  std::cout << wrapped(host->sentence(OzfObjTime::now()), terminalWidth(STDOUT_FILENO)) << '\n';
  std::cout.flush();
}

// What a master, or the one that is asked, was found to be like.
struct MasterState
{
  std::string name; // empty where only one is asked
  std::string place;
  long milliseconds = 0; // until it answered
  std::size_t discoveries = 0;
};

// All that status tells.
struct StatusReading
{
  std::vector<MasterState> masters;
  std::optional<AnnouncingHost> announcing;
  std::vector<ServiceState> states;
  Fleet fleet{OzfObjTime::now()};
  SilentHosts silent;
  bool whole = false;

  void add(Record const& record)
  {
    fleet.add(record);
    for (MasterState& master : masters)
      if (master.name == masterOf(record))
        ++master.discoveries;
  }
};

void printJsonStatus(StatusReading const& reading)
{
  nlohmann::json services = nlohmann::json::array();
  Descriptions descriptions;
  for (ServiceState const& state : reading.states)
    services.push_back(toJson(state, descriptions.of(state.record)));
  nlohmann::json masters = nlohmann::json::array();
  for (MasterState const& master : reading.masters)
  {
    nlohmann::json one = {{"service", master.place},
                          {"milliseconds", master.milliseconds},
                          {"discoveries", master.discoveries}};
    if (!master.name.empty())
      one["master"] = master.name;
    masters.push_back(std::move(one));
  }
  // One master's stand beside the rest.
  nlohmann::json all = reading.masters.size() == 1 && reading.masters.front().name.empty()
                           ? masters.front()
                           : nlohmann::json{{"masters", masters}};
  all["services"] = std::move(services);
  all["announcement"] = toJson(reading.announcing);
  all["silent"] = toJson(reading.silent);
  printJson(all);
}

void printStatus(StatusReading const& reading, bool details)
{
  std::size_t const width = terminalWidth(STDOUT_FILENO);
  for (MasterState const& master : reading.masters)
    std::cout << wrapped(master.place + " is up: it answered after " +
                             std::to_string(master.milliseconds) + " ms and lists " +
                             counted(master.discoveries, "discovery", "discoveries") + ".",
                         width)
              << '\n';
  if (reading.states.empty())
  {
    std::cout << wrapped("No service has told of itself yet; each does within minutes of its "
                         "start.",
                         width)
              << '\n';
    return;
  }
  OzfObjTime const now = OzfObjTime::now();
  std::cout << '\n';
  printServices(reading.states, reading.silent, now);
  printExplorers(reading.states, details || reading.states.size() + reading.silent.size() == 1,
                 now);
  printLimits(reading.states, now);
}

void complainOfSilence(StatusReading const& reading)
{
  if (!reading.silent.empty())
    complain(counted(reading.silent.size(), "host is", "hosts are") +
             " silent: something is known of each, but its service has not told of itself for "
             "more than a minute. Is tqdisco running there? What is left of a host that was taken "
             "away goes with \"tqdiscoctl db forget HOST\" on the master.");
  if (reading.fleet.full())
    complain("more hosts are silent than one status takes; the others are not listed");
}

// An exit code: whether there is anything to tell.
int readStatus(Connection const& connection, StatusReading& reading)
{
  int const told = readStates(connection, "*", reading.states);
  if (!isListed(told))
    return told;
  for (ServiceState const& state : reading.states)
    reading.fleet.addTelling(state.record.subject);
  int const listed = visitRecords(
      connection, Selection(),
      [&](Record const& record)
      {
        reading.add(record);
        return true;
      },
      told != EXIT_DONE);
  if (!isListed(listed))
    return listed;
  reading.silent = reading.fleet.silent();
  dropForgotten(connection, reading.silent);
  reading.whole = listed == EXIT_DONE && told == EXIT_DONE && !reading.fleet.full();
  return EXIT_DONE;
}

// Reaches the master, or those of several that can be.
int reachMasters(Connection& connection, StatusReading& reading)
{
  using Clock = std::chrono::steady_clock;
  Clock::time_point const begin = Clock::now();
  if (int const result = connection.reachMaster(); result != EXIT_DONE)
    return result;
  auto const answered =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
  if (!connection.several())
    reading.masters.push_back({"", connection.place(), answered});
  for (Master const& master : connection.masters().all())
    if (master.missing.empty())
      reading.masters.push_back({master.name, master.place, master.milliseconds});
  return EXIT_DONE;
}

int status(StatusOptions const& options, Session const& session)
{
  WhileRead const whileRead;
  Connection connection(session.connection, Connection::SEVERAL);
  if (int const result = connection.prepare(); result != EXIT_DONE)
    return result;
  StatusReading reading;
  // Before the master is asked, who may be why this host waits.
  bool const named = !session.connection.master.empty();
  if (!named)
    tellAnnouncing(reading.announcing = askAnnouncingHere(), options);
  if (int const result = reachMasters(connection, reading); result != EXIT_DONE)
    return result;
  if (named && !connection.several())
    tellAnnouncing(reading.announcing = askAnnouncing(connection.master()), options);

  if (int const result = readStatus(connection, reading); result != EXIT_DONE)
    return connection.conclude(result);
  std::size_t failed = 0;
  bool complete = true; // what was found
  for (ServiceState const& state : reading.states)
  {
    failed += countFailed(state);
    complete = complete && state.complete;
  }

  if (options.json)
    printJsonStatus(reading);
  else
    printStatus(reading, options.details);
  std::cout.flush();
  if (!complete)
    complain("what some service tells of itself could not be read to its end; --verbose shows "
             "why");
  complainOfSilence(reading);
  complainOfCertificates(reading.states, OzfObjTime::now());
  complainOfRestarts(reading.states);
  complainOfClones(reading.states);
  complainOfCrashes(reading.states);
  if (failed != 0)
    complain(counted(failed, "explorer has", "explorers have") +
             " failed at the last run; the log of the host's service tells why");
  return connection.conclude(
      reading.whole && failed == 0 && complete && reading.silent.empty() ? EXIT_DONE : EXIT_PARTLY);
}

} // namespace

void addStatusCommand(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<StatusOptions>();
  CLI::App* const command = application.add_subcommand(
      "status", "Tell whether the service is up, and what every host's service tells of itself");
  command->add_flag("-l,--details", options->details, "Every host's explorers");
  command->add_flag("--json", options->json, "As JSON");
  command->callback([options, &session] { session.exitCode = status(*options, session); });
}

} // namespace tqdiscoctl
