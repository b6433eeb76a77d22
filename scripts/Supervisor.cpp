#include "scripts/Supervisor.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf::Scripts
{

namespace
{

static_assert(END_AT_ONCE == SIGINT);

constexpr int REPORT = 3; // the descriptor, from when the others are closed
constexpr long SWEEP = 10;

long milliseconds() noexcept
{
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

void report(SupervisorReport::What what, int value, long memory = 0) noexcept
{
  SupervisorReport const text{what, value, memory};
  while (write(REPORT, &text, sizeof text) < 0 && errno == EINTR)
    ;
}

// Closes all descriptors from first on.
void closeFrom(unsigned first) noexcept
{
  if (close_range(first, ~0U, 0) == 0)
    return;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  for (unsigned fd = first; fd < limit.rlim_cur; ++fd)
    close(static_cast<int>(fd));
}

// Standard input, output and error, and the report; nothing else stays open.
void arrange(SupervisorPlan const& plan) noexcept
{
  constexpr int ABOVE = 10;
  int const wanted[] = {plan.input, plan.output, plan.errors, plan.report};
  int kept[4];
  for (int i = 0; i < 4; ++i)
    kept[i] = fcntl(wanted[i], F_DUPFD, ABOVE);
  for (int i = 0; i < 4; ++i)
    dup2(kept[i], i);
  closeFrom(REPORT + 1);
  fcntl(REPORT, F_SETFD, FD_CLOEXEC);
}

void limit(__rlimit_resource_t resource, rlim_t most) noexcept
{
  rlimit present{};
  if (getrlimit(resource, &present) != 0 || present.rlim_cur <= most)
    return;
  present.rlim_cur = most;
  setrlimit(resource, &present);
}

// The C library's own functions would have the other threads change their user too.
bool becomeUser(SupervisorPlan const& plan) noexcept
{
  return syscall(SYS_setgroups, plan.groupCount, plan.groups) == 0 &&
         syscall(SYS_setresgid, plan.group, plan.group, plan.group) == 0 &&
         syscall(SYS_setresuid, plan.user, plan.user, plan.user) == 0;
}

// By the system's call: the C library's keeps two signals to itself, and a parent that ignored
// them hands that on.
void handleSignalsByDefault() noexcept
{
  constexpr unsigned long BY_DEFAULT[8] = {}; // the kernel's structure, whatever its order
  for (int signal = 1; signal < NSIG; ++signal)
    syscall(SYS_rt_sigaction, signal, BY_DEFAULT, nullptr, (NSIG - 1) / 8);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void becomeScript(SupervisorPlan const& plan, pid_t supervisor) noexcept
{
  setpgid(0, 0);
  // What the service may do besides is not for its scripts.
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  limit(RLIMIT_CORE, 0);
  limit(RLIMIT_NOFILE, 1024);
  umask(022);
  if (plan.changesUser && !becomeUser(plan))
  {
    report(SupervisorReport::NoUser, errno);
    _exit(127);
  }
  // A change of the user takes it back.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != supervisor)
    _exit(127);
  if (chdir(plan.directory) != 0)
  {
    report(SupervisorReport::NoDirectory, errno);
    _exit(127);
  }
  handleSignalsByDefault();
  struct stat status = {};
  if (lstat(plan.path, &status) != 0 || status.st_dev != plan.device || status.st_ino != plan.inode)
    report(SupervisorReport::Replaced, 0);
  else
  {
    execve(plan.path, const_cast<char* const*>(plan.arguments),
           const_cast<char* const*>(plan.environment));
    report(SupervisorReport::NotExecuted, errno);
  }
  _exit(127);
}

// Kills every child that there is: the script, and what was left to the supervisor.
void killChildren() noexcept
{
  int const list = open("/proc/thread-self/children", O_RDONLY | O_CLOEXEC);
  if (list < 0)
    return;
  char text[4096];
  pid_t child = 0;
  for (ssize_t size; (size = read(list, text, sizeof text)) > 0;)
    for (ssize_t i = 0; i < size; ++i)
    {
      if (text[i] >= '0' && text[i] <= '9')
      {
        child = child * 10 + (text[i] - '0');
        continue;
      }
      if (child > 1)
        kill(child, SIGKILL);
      child = 0;
    }
  close(list);
}

class Supervision
{
public:
  Supervision(SupervisorPlan const& plan, pid_t script) noexcept
      : m_plan(plan), m_script(script), m_next(milliseconds() + plan.timeout)
  {
  }

  // Until nothing of the script is left.
  void run() noexcept
  {
    sigset_t awaited;
    sigemptyset(&awaited);
    for (int const signal : {SIGCHLD, SIGTERM, SIGINT})
      sigaddset(&awaited, signal);
    while (reap())
    {
      if (m_phase == Killing)
        killAll();
      long const rest = m_phase == Killing ? SWEEP : m_next - milliseconds();
      timespec const wait{rest > 0 ? rest / 1000 : 0, rest > 0 ? rest % 1000 * 1'000'000 : 0};
      int const signal = sigtimedwait(&awaited, nullptr, &wait);
      if (signal == SIGINT || (signal == SIGTERM && getppid() != m_plan.parent))
        m_phase = Killing;
      else if (signal == SIGTERM)
        terminate();
      else if (m_phase != Killing && milliseconds() >= m_next)
        passed();
    }
  }

private:
  enum Phase
  {
    Running,
    Terminating,
    Killing
  };

  void terminate() noexcept
  {
    if (m_phase != Running)
      return;
    m_phase = Terminating;
    m_next = milliseconds() + m_plan.grace;
    if (kill(-m_script, SIGTERM) != 0) // it is not a group yet
      kill(m_script, SIGTERM);
  }

  void passed() noexcept
  {
    if (m_phase == Running)
    {
      m_timedOut = true;
      terminate();
    }
    else
      m_phase = Killing;
  }

  void killAll() noexcept
  {
    if (!m_ended)
      kill(-m_script, SIGKILL);
    killChildren();
  }

  // Takes in all that has ended. False when nothing is left.
  bool reap() noexcept
  {
    for (;;)
    {
      siginfo_t ended = {};
      if (waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) != 0)
      {
        if (errno == EINTR)
          continue;
        return errno != ECHILD;
      }
      if (ended.si_pid == 0)
        return true;
      int status = 0;
      rusage usage = {};
      if (ended.si_pid == m_script)
        kill(-m_script, SIGKILL); // while its number cannot be anybody else's
      wait4(ended.si_pid, &status, 0, &usage);
      if (ended.si_pid != m_script)
        continue;
      m_ended = true;
      m_phase = Killing;
      report(m_timedOut ? SupervisorReport::TimedOut : SupervisorReport::Ended, status,
             usage.ru_maxrss);
    }
  }

  SupervisorPlan const& m_plan;
  pid_t const m_script;
  Phase m_phase = Running;
  bool m_ended = false; // the script; what it left may go on
  bool m_timedOut = false;
  long m_next; // when the phase is over
};

} // namespace

void superviseScript(SupervisorPlan const& plan) noexcept
{
  arrange(plan);
  setsid(); // no signal of a terminal comes here
  prctl(PR_SET_NAME, "tq-script");
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  struct sigaction byDefault = {};
  byDefault.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &byDefault, nullptr); // ignored, children would be nobody's
  pid_t const supervisor = getpid();
  if (getppid() != plan.parent)
    _exit(127);
  pid_t const script = _Fork();
  if (script == 0)
    becomeScript(plan, supervisor);
  if (script < 0)
  {
    report(SupervisorReport::NoProcess, errno);
    _exit(127);
  }
  setpgid(script, script);
  for (int const fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    close(fd); // so that their other ends see when the script's are closed
  Supervision(plan, script).run();
  _exit(0);
}

} // namespace Quillon::Tessarine::Ozf::Scripts
