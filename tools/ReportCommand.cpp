// report: how the fleet fares, as a page for a mail or a ticket.

#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/HtmlReport.h"
#include "tools/Output.h"
#include "tools/ReaderGone.h"
#include "tools/WholeFile.h"

#include "ozf/base/SystemError.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char FILE_SYSTEMS[] = "filesystem";
constexpr std::size_t MOST_FULL = 100'000;

struct ReportOptions
{
  std::string html;
};

// What the page is made of, but for the services.
struct ReportReading
{
  Fleet fleet{OzfObjTime::now()};
  std::vector<Record> fileSystems;
  std::vector<FullFileSystem> full;
  std::size_t unread = 0;
};

int listAll(Connection const& connection, ReportReading& reading)
{
  return visitRecords(connection, Selection(),
                      [&](Record record)
                      {
                        reading.fleet.add(record);
                        if (record.authority == FILE_SYSTEMS && record.type == AT_TQUCLIENT)
                          reading.fileSystems.push_back(std::move(record));
                        return true;
                      });
}

void readFileSystems(Connection const& connection, ReportReading& reading)
{
  Progress progress("Reading file systems");
  std::size_t done = 0;
  for (Record const& record : reading.fileSystems)
  {
    if (connection.clock().nearlyOver())
    {
      progress.clear();
      complain("out of time: file systems of " +
               counted(reading.fileSystems.size() - done, "host were", "hosts were") +
               " not read; --timeout allows more");
      reading.unread += reading.fileSystems.size() - done;
      return;
    }
    progress.update(std::to_string(done++) + " of " + std::to_string(reading.fileSystems.size()));
    FullFileSystem found;
    found.host = nameWithMaster(record);
    bool const read = !connection.isMissing(record) &&
                      readCollection(record, OzfQuery(),
                                     [&](Item const& item)
                                     {
                                       if (reading.full.size() < MOST_FULL && isFull(item, found))
                                         reading.full.push_back(found);
                                     })
                          .complete;
    if (read)
      continue;
    ++reading.unread;
    if (connection.several() && !connection.isMissing(record))
      connection.answers(record); // or else those to come would have to be waited for
  }
}

int writeReport(std::string const& path, std::string const& html, int result)
{
  if (path == "-")
  {
    std::cout << html;
    return result;
  }
  if (int const error = writeWhole(path, html); error != 0)
  {
    complain("cannot write " + shown(path) + ": " + errorText(error));
    return EXIT_FAILED;
  }
  return result;
}

int report(ReportOptions const& options, Session const& session)
{
  WhileRead const whileRead;
  Connection connection(session.connection, Connection::SEVERAL);
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  ReportReading reading;
  int const listed = listAll(connection, reading);
  if (!isListed(listed))
    return connection.conclude(listed);
  std::vector<ServiceState> services;
  int const told = readStates(connection, "*", services);
  if (!isListed(told))
    return connection.conclude(told);
  for (ServiceState const& state : services)
  {
    reading.fleet.addTelling(state.record.subject);
    reading.unread += state.complete ? 0 : 1;
  }
  readFileSystems(connection, reading);
  SilentHosts silent = reading.fleet.silent();
  dropForgotten(connection, silent);
  if (reading.unread != 0)
    complain(counted(reading.unread, "discovery", "discoveries") +
             " could not be read; the report says so, and --verbose shows why");
  bool const whole =
      listed == EXIT_DONE && told == EXIT_DONE && reading.unread == 0 && !reading.fleet.full();
  return writeReport(options.html,
                     htmlReport({connection.place(), reading.fleet, silent, services, reading.full,
                                 reading.unread, listed == EXIT_DONE}),
                     connection.conclude(whole ? EXIT_DONE : EXIT_PARTLY));
}

} // namespace

void addReportCommand(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<ReportOptions>();
  CLI::App* const command = application.add_subcommand(
      "report", "Write a page about the fleet, with details of the hosts that need a look");
  command->add_option("--html", options->html, "Into this file; - is standard output")
      ->type_name("FILE")
      ->required();
  command->callback([options, &session] { session.exitCode = report(*options, session); });
}

} // namespace tqdiscoctl
