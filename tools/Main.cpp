// tqdiscoctl: the operator's command.

#include "ozf/base/SystemError.h"
#include "ozf/log/Logger.h"
#include "tools/Commands.h"
#include "tools/DbCommands.h"
#include "tools/ExitCodes.h"
#include "tools/Help.h"
#include "tools/Output.h"
#include "tools/StandardOutput.h"
#include "tools/TlsOptions.h"

#include <CLI/CLI.hpp>

#include <clocale>
#include <exception>
#include <iostream>

namespace
{

// An empty value is what a shell makes of a variable that is not set. Taken as
// if the option were not there, it would mean the master, or everything. Only
// an empty query asks for what none asks for.
void refuseEmptyValues(CLI::App& app)
{
  static CLI::Validator const NOT_EMPTY(
      [](std::string const& value)
      { return std::string(value.empty() ? "an empty value names nothing" : ""); },
      "");
  for (CLI::Option* const option : app.get_options())
    if (option->get_type_size() != 0 && !option->check_lname("where"))
      option->check(NOT_EMPTY);
  for (CLI::App* const command : app.get_subcommands({}))
    refuseEmptyValues(*command);
}

} // namespace

// What is set up before a command is read fails for want of memory alone.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv)
{
  using namespace tqdiscoctl;

  std::setlocale(LC_CTYPE, "");
  StandardOutput const output;
  // Each command says itself what went wrong; the library's own lines are for
  // those who ask for them.
  using Quillon::Tessarine::Ozf::LoggerFactory;
  LoggerFactory::setLevel(0);

  CLI::App application("Shows the discoveries of a fleet, and tells its services what to do.",
                       "tqdiscoctl");
  application.set_version_flag("--version", "tqdiscoctl " TQ_VERSION)
      ->description("Print the version");
  application.require_subcommand(1);
  application.footer("Exit codes: 0 found or done, 1 failed, 2 wrong usage, 3 nothing matched, "
                     "4 partly failed, 5 service not reachable, 6 not allowed by the service.");
  application.fallthrough();
  Session session;
  addConnectionOptions(application, session.connection);
  addTlsOptions(application);
  application.add_flag_function(
      "-v,--verbose", [](std::int64_t count) { LoggerFactory::setLevel(count > 1 ? 6 : 1); },
      "Also what the library logs, on standard error; twice for all of it");
  addStatusCommand(application, session);
  addQueryCommands(application, session);
  addShowCommands(application, session);
  addItemsCommand(application, session);
  addWatchCommand(application, session);
  addMetricsCommand(application, session);
  addReportCommand(application, session);
  addWhichMasterCommand(application, session);
  addSqlCommand(application, session);
  addPutCommand(application, session);
  addControlCommands(application, session);
  addExplorerCommands(application, session);
  addDbCommands(application, session.exitCode);
  addTlsCommand(application, session);
  setUpHelp(application);
  refuseEmptyValues(application);

  try
  {
    application.parse(argc, argv);
  }
  catch (CLI::ParseError const& error)
  {
    session.exitCode = reportUsage(application, error);
  }
  catch (std::exception const& exception)
  {
    complain(exception.what());
    return EXIT_FAILED;
  }
  std::cout.flush();
  if (std::cout)
    return session.exitCode;
  complain("cannot write to standard output: " +
           Quillon::Tessarine::Ozf::errorText(output.error()));
  return EXIT_FAILED;
}
