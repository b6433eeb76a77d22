#include "host/Options.h"

#include "ozf/config/ProductRoot.h"

#include <CLI/CLI.hpp>

namespace Host
{

bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
  CLI::App app("Runs the discovery service of this host in the foreground.", "tqdisco");
  app.set_version_flag("--version", "tqdisco " TQ_VERSION);
  app.add_flag("--check-config", options.checkConfiguration,
               "Read the configuration, report every mistake and exit");
  auto* const dump = app.add_flag("--dump-config", options.dumpConfiguration,
                                  "Print every key with its value, its default and where the "
                                  "value comes from, and exit");
  app.add_flag("--json", options.json, "Print what --dump-config prints as JSON")->needs(dump);
  auto* const debug =
      app.add_flag("--debug", options.debug, "Write every log line, and write them to stderr");
  app.add_option("--log-level", options.logLevel,
                 "0 none, 1 errors and notable events, 4 detail, 6 fine detail; "
                 "stands in for LOG_LEVEL")
      ->check(CLI::Range(0, 6))
      ->type_name("LEVEL")
      ->excludes(debug);
  app.footer("Configuration: " + Quillon::Tessarine::Ozf::getConfigurationPath() +
             "\n"
             "Environment: TESSARINE_ROOT names another product root.\n"
             "Signals: SIGTERM and SIGINT stop the service, SIGHUP reads the configuration\n"
             "again, takes what can change without a restart, and reopens the logs.\n"
             "Exit status:\n"
             "  0  stopped in order, or told not to start by REPORT_CLIENT_DISCOVERIES\n"
             "  1  the start failed; standard error and the log say why\n"
             "  2  wrong usage, or --check-config or --dump-config found a\n"
             "     mistake\n"
             "  3  the stop was not orderly; the log says why\n"
             "  4  this host is the master, and its database directory cannot be made\n"
             "     or written");
  try
  {
    app.parse(argc, argv);
    return true;
  }
  catch (CLI::ParseError const& result)
  {
    exitCode = app.exit(result) == 0 ? EXIT_ORDERLY : EXIT_USAGE;
    return false;
  }
}

} // namespace Host
