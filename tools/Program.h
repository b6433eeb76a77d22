// What programs beside the service do alike: their command line, signals, and the report on their
// configuration.

#pragma once

#include "ozf/config/Configuration.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

// What such a program returns, with the numbers of the service.
enum ProgramExit : int
{
  PROGRAM_ORDERLY = 0,
  PROGRAM_START_FAILED = 1,
  PROGRAM_USAGE = 2
};

struct ProgramOptions
{
  bool checkConfiguration = false;
  bool debug = false;
  int logLevel = -1; // -1: not given
};

// --version, --check-config, --debug and --log-level.
void addProgramOptions(CLI::App& app, ProgramOptions& options);

// Adds what the help ends with; orderly says when the exit status is 0, failed when it is 1. True
// when the program goes on; otherwise exitCode is what it returns. Help, version and usage errors
// are printed here.
bool parseProgram(CLI::App& app, int argc, char** argv, std::string const& orderly,
                  std::string const& failed, int& exitCode);

// First of all in a program, before there are threads: whoever starts it may stop it at once.
// SIGPIPE is ignored; those that stop it, and SIGHUP, wait for awaitStop.
void takeSignals();

// Waits for SIGTERM or SIGINT, or for endAwaitStop of another thread; false when none came within
// that time. tell gets an empty text for a SIGHUP, and for a signal that stops the line for the
// log.
bool awaitStop(std::function<void(std::string const&)> const& tell,
               std::optional<std::chrono::seconds> longest = std::nullopt);
void endAwaitStop();

// Prints every mistake, or the files without any; what --check-config returns.
ProgramExit
printProblems(Quillon::Tessarine::Ozf::Configuration const& configuration,
              std::vector<Quillon::Tessarine::Ozf::ConfigurationProblem> const& problems);

} // namespace tqdiscoctl
