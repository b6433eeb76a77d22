#include "publish/Options.h"

#include <CLI/CLI.hpp>

namespace Publish
{

bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
  CLI::App app("Keeps a PostgreSQL database current with what the masters of a fleet know.",
               "tqpublish");
  tqdiscoctl::addProgramOptions(app, options);
  app.add_flag("--once", options.once, "End after one pass over the masters");
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
             "file.\n");
  if (!tqdiscoctl::parseProgram(app, argc, argv, "stopped in order, or done",
                                "the start failed, or the schema is another", exitCode))
    return false;
  options.task = migrate->parsed() ? Options::MIGRATE
                 : usage->parsed() ? Options::USAGE
                                   : Options::FOLLOW;
  return true;
}

} // namespace Publish
