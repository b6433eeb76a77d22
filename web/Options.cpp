#include "web/Options.h"

#include "ozf/config/ProductRoot.h"

#include <CLI/CLI.hpp>

#include <filesystem>

namespace Web
{

namespace
{

// Where it is installed beside the program.
std::string installedPage()
{
  std::error_code failure;
  auto const program = std::filesystem::read_symlink("/proc/self/exe", failure);
  return (program.parent_path().parent_path() / "share/tessarine-discovery/page").string();
}

} // namespace

bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
  CLI::App app("Serves what the masters of a fleet know over HTTP, to browsers and programs.",
               "tqdiscoweb");
  app.set_version_flag("--version", "tqdiscoweb " TQ_VERSION);
  app.add_flag("--check-config", options.checkConfiguration,
               "Read the configuration, report every mistake and exit");
  auto* const debug =
      app.add_flag("--debug", options.debug, "Write every log line, and write them to stderr");
  app.add_option("--log-level", options.logLevel,
                 "0 none, 1 errors and notable events, 4 detail, 6 fine detail; "
                 "stands in for LOG_LEVEL")
      ->check(CLI::Range(0, 6))
      ->type_name("LEVEL")
      ->excludes(debug);
  options.page = installedPage();
  app.add_option("--page", options.page, "The folder with the files of the page")
      ->type_name("FOLDER")
      ->capture_default_str();
  app.footer("Configuration: " + Quillon::Tessarine::Ozf::getConfigurationPath() +
             "\n"
             "Environment: TESSARINE_ROOT names another product root.\n"
             "Signals: SIGTERM and SIGINT stop it, SIGHUP reopens the log.\n"
             "Exit status:\n"
             "  0  stopped in order\n"
             "  1  the start failed; standard error and the log say why\n"
             "  2  wrong usage, or --check-config found a mistake");
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

} // namespace Web
