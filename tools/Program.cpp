#include "tools/Program.h"

#include "ozf/base/Display.h"
#include "ozf/config/ProductRoot.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::atomic<bool> s_isEnded{false};

sigset_t takenSignals()
{
  sigset_t set;
  sigemptyset(&set);
  for (int const signal : {SIGTERM, SIGINT, SIGHUP})
    sigaddset(&set, signal);
  return set;
}

} // namespace

void addProgramOptions(CLI::App& app, ProgramOptions& options)
{
  app.set_version_flag("--version", app.get_name() + " " TQ_VERSION);
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
}

bool parseProgram(CLI::App& app, int argc, char** argv, std::string const& orderly,
                  std::string const& failed, int& exitCode)
{
  app.footer(app.get_footer() + "Configuration: " + getConfigurationPath() +
             "\n"
             "Environment: TESSARINE_ROOT names another product root.\n"
             "Signals: SIGTERM and SIGINT stop it, SIGHUP reopens the log.\n"
             "Exit status:\n"
             "  0  " +
             orderly + "\n  1  " + failed +
             "; standard error and the log say why\n"
             "  2  wrong usage, or --check-config found a mistake");
  try
  {
    app.parse(argc, argv);
    return true;
  }
  catch (CLI::ParseError const& result)
  {
    exitCode = app.exit(result) == 0 ? PROGRAM_ORDERLY : PROGRAM_USAGE;
    return false;
  }
}

void takeSignals()
{
  sigset_t const set = takenSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

bool awaitStop(std::function<void(std::string const&)> const& tell,
               std::optional<std::chrono::seconds> longest)
{
  sigset_t const set = takenSignals();
  timespec const pause{longest.value_or(std::chrono::seconds(0)).count(), 0};
  for (;;)
  {
    int const signal = longest ? sigtimedwait(&set, nullptr, &pause) : sigwaitinfo(&set, nullptr);
    if (s_isEnded)
      return true;
    if (signal < 0 && errno == EAGAIN)
      return false;
    if (signal < 0)
      continue;
    if (signal != SIGHUP)
    {
      tell("Stopping, took " + std::string(strsignal(signal)));
      return true;
    }
    tell("");
  }
}

void endAwaitStop()
{
  s_isEnded = true;
  kill(getpid(), SIGTERM);
}

ProgramExit printProblems(Configuration const& configuration,
                          std::vector<ConfigurationProblem> const& problems)
{
  for (auto const& problem : problems)
    std::fprintf(stderr, "%s\n", onOneLine(problem.text()).c_str());
  if (!problems.empty())
    return PROGRAM_USAGE;
  for (auto const& path : configuration.files())
    std::printf("%s: no mistakes\n", onOneLine(path).c_str());
  return PROGRAM_ORDERLY;
}

} // namespace tqdiscoctl
