// metrics: what the service does, for Prometheus.

#include "tools/Commands.h"
#include "tools/Metrics.h"
#include "tools/Output.h"
#include "tools/ReaderGone.h"
#include "tools/WholeFile.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/base/SystemError.h"
#include "ozf/config/HostRole.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

struct MetricsOptions
{
  std::string host;
  std::string textfile;
};

std::string nameHere()
{
  OzfHostname local;
  return local.setLocal() ? local.exportNarrow() : std::string();
}

// lister: how the host calls itself that lists them, where there is anything.
int readFleet(Figures& figures, std::string& lister)
{
  Fleet fleet(OzfObjTime::now());
  int const result = visitRecords(Selection(),
                                  [&](Record const& record)
                                  {
                                    if (lister.empty() && record.source)
                                      lister = record.source->host;
                                    fleet.add(record);
                                    return true;
                                  });
  // Half a list would tell of hosts as silent, or not at all.
  if (result != EXIT_DONE)
    return result;
  if (fleet.full())
  {
    complain("there are more hosts than one command takes; nothing is told of the fleet");
    return EXIT_PARTLY;
  }
  SilentHosts silent = fleet.silent();
  dropForgotten("", silent);
  figures.fleet = figuresOf(fleet, silent);
  return result;
}

int readService(Connection const& connection, std::string const& host, Figures& figures)
{
  std::vector<ServiceState> states;
  int const result = readStates(connection, host, states);
  if (!isListed(result))
    return result;
  auto const own = std::find_if(states.begin(), states.end(),
                                [&](ServiceState const& state)
                                { return equalIgnoringCase(state.record.subject, host); });
  if (own == states.end() || !own->complete)
  {
    complain("the service of " + shown(host) +
             (own == states.end() ? " tells nothing of itself; it does within minutes of its start"
                                  : " tells of itself what could not be read"));
    return EXIT_PARTLY;
  }
  figures.service = figuresOf(*own);
  return result;
}

// What one of several masters lists, while it comes.
struct ListedMaster
{
  Fleet fleet{OzfObjTime::now()};
  std::string ownName;
};

// What the host's service tells of itself, as the master lists it; nothing when it tells nothing.
std::optional<ServiceFigures> figuresAt(Connection const& connection, std::string const& master,
                                        std::string const& host)
{
  std::vector<ServiceState> states;
  if (host.empty() || !isListed(readStates(connection, host, states)))
    return std::nullopt;
  auto const own = std::find_if(states.begin(), states.end(),
                                [&](ServiceState const& state)
                                {
                                  return state.complete && masterOf(state.record) == master &&
                                         equalIgnoringCase(state.record.subject, host);
                                });
  return own == states.end() ? std::nullopt : std::optional(figuresOf(*own));
}

// One for each of several masters; an exit code.
int readMasters(MetricsOptions const& options, Connection const& connection,
                std::vector<Figures>& all)
{
  std::map<std::string, ListedMaster> listed;
  for (Master const& master : connection.masters().all())
    listed[master.name];
  int result = visitRecords(connection, Selection(),
                            [&](Record const& record)
                            {
                              ListedMaster& master = listed[masterOf(record)];
                              master.ownName = record.source->ownName;
                              master.fleet.add(record);
                              return true;
                            });
  for (Master const& master : connection.masters().all())
  {
    Figures& figures = all.emplace_back();
    figures.master = master.name;
    figures.up = master.missing.empty();
    ListedMaster const& known = listed[master.name];
    // Half a list would tell of hosts as silent, or not at all.
    if (!figures.up || master.incomplete || known.fleet.full())
      continue;
    SilentHosts silent = known.fleet.silent();
    dropForgotten(master.name, silent);
    figures.fleet = figuresOf(known.fleet, silent);
    figures.service =
        figuresAt(connection, master.name, options.host.empty() ? known.ownName : options.host);
    if (!figures.service && options.host.empty())
    {
      complain("the service of " + shown(master.name) +
               " tells nothing of itself; it does within minutes of its start");
      result = withMissing(EXIT_PARTLY, result);
    }
  }
  return connection.conclude(result);
}

int readFigures(MetricsOptions const& options, Session const& session, std::vector<Figures>& all)
{
  // Without a name it tells of this host, whichever masters people ask from here.
  bool const named = !session.connection.master.empty();
  Connection connection(session.connection, named ? Connection::SEVERAL : Connection::ONE);
  Figures& figures = all.emplace_back();
  if (int const result = connection.open(); result != EXIT_DONE)
  {
    if (!connection.several())
      return result;
    all.clear();
    for (Master const& master : connection.masters().all())
      all.emplace_back().master = master.name;
    return result;
  }
  if (connection.several())
  {
    all.clear();
    return readMasters(options, connection, all);
  }
  figures.up = true;
  std::string host = options.host.empty() && !named ? nameHere() : options.host;
  int listed = EXIT_DONE;
  // A fleet of clients does not list all of the fleet every minute.
  if (named || IsRunningOnMasterServer() == 0)
  {
    std::string lister;
    listed = readFleet(figures, lister);
    if (host.empty())
      host = lister;
  }
  int told = EXIT_DONE;
  if (isListed(listed) && !host.empty())
    told = readService(connection, host, figures);
  int const result = connection.conclude(listed == EXIT_DONE ? told : listed);
  figures.up = result != EXIT_NOT_REACHABLE;
  return result;
}

int metrics(MetricsOptions const& options, Session const& session)
{
  WhileRead const whileRead;
  std::vector<Figures> figures;
  int const result = readFigures(options, session, figures);
  if (result == EXIT_USAGE)
    return result;
  std::string const text = metricsText(gather(figures));
  if (options.textfile.empty())
  {
    std::cout << text;
    return result;
  }
  if (int const error = writeWhole(options.textfile, text); error != 0)
  {
    complain("cannot write " + shown(options.textfile) + ": " + errorText(error));
    return EXIT_FAILED;
  }
  return result;
}

} // namespace

void addMetricsCommand(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<MetricsOptions>();
  CLI::App* const command = application.add_subcommand(
      "metrics", "Tell what the service does in the form that Prometheus reads");
  command
      ->add_option("--textfile", options->textfile,
                   "Into this file, in one step, for the textfile collector")
      ->type_name("FILE");
  command
      ->add_option("--host", options->host,
                   "What the service of that host tells of itself, in place of this host's")
      ->type_name("HOST");
  command->callback([options, &session] { session.exitCode = metrics(*options, session); });
}

} // namespace tqdiscoctl
