#include "tools/Program.h"

#include "ozf/base/Display.h"

#include <atomic>
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

void takeSignals()
{
  sigset_t const set = takenSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

void awaitStop(std::function<void(std::string const&)> const& tell)
{
  sigset_t const set = takenSignals();
  for (;;)
  {
    int signal = 0;
    if (sigwait(&set, &signal) != 0)
      continue;
    if (s_isEnded)
      return;
    if (signal != SIGHUP)
    {
      tell("Stopping, took " + std::string(strsignal(signal)));
      return;
    }
    tell("");
  }
}

void endAwaitStop()
{
  s_isEnded = true;
  kill(getpid(), SIGTERM);
}

bool printProblems(Configuration const& configuration,
                   std::vector<ConfigurationProblem> const& problems)
{
  for (auto const& problem : problems)
    std::fprintf(stderr, "%s\n", onOneLine(problem.text()).c_str());
  if (problems.empty())
    for (auto const& path : configuration.files())
      std::printf("%s: no mistakes\n", onOneLine(path).c_str());
  return problems.empty();
}

} // namespace tqdiscoctl
