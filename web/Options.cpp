#include "web/Options.h"

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
  tqdiscoctl::addProgramOptions(app, options);
  options.page = installedPage();
  app.add_option("--page", options.page, "The folder with the files of the page")
      ->type_name("FOLDER")
      ->capture_default_str();
  return tqdiscoctl::parseProgram(app, argc, argv, "stopped in order", "the start failed",
                                  exitCode);
}

} // namespace Web
