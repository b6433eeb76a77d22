#include "publish/Options.h"

#include "ozf/config/ProductRoot.h"

#include <CLI/CLI.hpp>

namespace Publish
{

bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
  CLI::App app("Keeps a PostgreSQL database current with what the masters of a fleet know.",
               "tqpublish");
  app.set_version_flag("--version", "tqpublish " TQ_VERSION);
  app.add_flag("--check-config", options.checkConfiguration,
               "Read the configuration, report every mistake and exit");
  app.add_flag("--once", options.once, "End after one pass over the masters");
  auto* const debug =
      app.add_flag("--debug", options.debug, "Write every log line, and write them to stderr");
  app.add_option("--log-level", options.logLevel,
                 "0 none, 1 errors and notable events, 4 detail, 6 fine detail; "
                 "stands in for LOG_LEVEL")
      ->check(CLI::Range(0, 6))
      ->type_name("LEVEL")
      ->excludes(debug);
  auto* const migrate =
      app.add_subcommand("migrate", "Bring the schema of the database to this program's version");
  migrate->add_option("--writer", options.writer, "Give a role the rights that tqpublish needs")
      ->type_name("ROLE");
  migrate->add_option("--reader", options.reader, "Give a role the right to ask")
      ->type_name("ROLE");
  auto* const usage =
      app.add_subcommand("usage", "Print what the database uses, for each 10,000 hosts and a day");
  app.require_subcommand(0, 1);
  app.footer("The database: PGSERVICE, PGHOST and the like in the environment, or libpq's service "
             "file.\n"
             "Configuration: " +
             Quillon::Tessarine::Ozf::getConfigurationPath() +
             "\n"
             "Environment: TESSARINE_ROOT names another product root.\n"
             "Signals: SIGTERM and SIGINT stop it, SIGHUP reopens the log.\n"
             "Exit status:\n"
             "  0  stopped in order, or done\n"
             "  1  the start failed, or the schema is another; standard error and the log say "
             "why\n"
             "  2  wrong usage, or --check-config found a mistake");
  try
  {
    app.parse(argc, argv);
  }
  catch (CLI::ParseError const& result)
  {
    exitCode = app.exit(result) == 0 ? EXIT_ORDERLY : EXIT_USAGE;
    return false;
  }
  options.task = migrate->parsed() ? Options::MIGRATE
                 : usage->parsed() ? Options::USAGE
                                   : Options::FOLLOW;
  return true;
}

} // namespace Publish
