#include "bench/HarmingProcess.h"

#include "bench/Bench.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace tqbench
{

HarmingProcess::HarmingProcess(std::function<void(int pipe)> const& work, char const* complaint)
{
  int ends[2];
  require(::pipe2(ends, O_CLOEXEC) == 0, "no pipe");
  m_pid = ::fork();
  require(m_pid >= 0, "no process");
  if (m_pid == 0)
  {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Who is harmed may close a connection at any time.
    std::signal(SIGPIPE, SIG_IGN);
    ::close(ends[0]);
    try
    {
      work(ends[1]);
    }
    catch (...)
    {
    }
    ::_exit(1);
  }
  ::close(ends[1]);
  char byte = 0;
  ssize_t const count = ::read(ends[0], &byte, 1);
  ::close(ends[0]);
  if (count != 1)
    end();
  require(count == 1, complaint);
}

HarmingProcess::~HarmingProcess() { end(); }

void HarmingProcess::end() const
{
  ::kill(m_pid, SIGKILL);
  ::waitpid(m_pid, nullptr, 0);
}

} // namespace tqbench
