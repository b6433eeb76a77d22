#include "scripts/ScriptRun.h"

#include "scripts/RunUser.h"
#include "scripts/ScriptOutput.h"
#include "scripts/Supervisor.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace Quillon::Tessarine::Ozf::Scripts
{

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds GRACE(2000);        // from TERM to KILL
constexpr milliseconds GRACE_AT_STOP(300); // the same, when this process is to end
constexpr milliseconds PATIENCE(5000);     // after KILL, for what does not end of it
constexpr milliseconds PATIENCE_AT_STOP(1000);
constexpr std::size_t ERROR_BYTES = 2048;
constexpr std::size_t ERROR_LINES = 5;

// ---- supervisors that could not be waited for ----

std::mutex leftMutex;
std::vector<pid_t> left; // guarded by leftMutex

void reapLeft()
{
  std::lock_guard const guard(leftMutex);
  std::erase_if(left, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
}

// ---- what a run needs ----

class EmptyDirectory
{
public:
  explicit EmptyDirectory(RunUser const& user)
  {
    std::error_code error;
    std::string const folder = std::filesystem::temp_directory_path(error).string();
    m_path = (error ? "/tmp" : folder) + "/tq-script-XXXXXX";
    m_made = mkdtemp(m_path.data()) != nullptr &&
             (!user.changes || chown(m_path.c_str(), user.id, user.group) == 0);
    if (!m_made)
      m_failure = "no empty directory can be made for it: " + m_path + ": " + errorText(errno);
  }
  ~EmptyDirectory()
  {
    std::error_code error;
    if (m_made)
      std::filesystem::remove_all(m_path, error);
    if (!error)
      return;
    openFolders();
    std::filesystem::remove_all(m_path, error);
  }
  EmptyDirectory(EmptyDirectory const&) = delete;
  EmptyDirectory& operator=(EmptyDirectory const&) = delete;

  std::string const& path() const { return m_path; }
  std::string const& failure() const { return m_failure; } // empty when it is there

private:
  // What the script made without the rights to remove it again.
  void openFolders() const
  {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::permissions(m_path, fs::perms::owner_all, error);
    for (fs::recursive_directory_iterator entry(m_path, error), end; !error && entry != end;
         entry.increment(error))
      if (std::error_code ignored;
          entry->symlink_status(ignored).type() == fs::file_type::directory)
        fs::permissions(entry->path(), fs::perms::owner_all, ignored);
  }

  std::string m_path;
  std::string m_failure;
  bool m_made = false;
};

struct Pipe
{
  bool open(int flags)
  {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
      return false;
    reading.reset(ends[0]);
    writing.reset(ends[1]);
    return fcntl(ends[0], F_SETFL, flags) == 0;
  }

  UniqueFd reading;
  UniqueFd writing;
};

// With all signals blocked in the supervisor from its first moment.
pid_t startSupervisor(SupervisorPlan const& plan)
{
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pid_t const pid = _Fork();
  if (pid == 0)
    superviseScript(plan);
  ErrnoKeeper const keeper;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return pid;
}

// ---- the run ----

class Run
{
public:
  Run(ScriptFile const& script, Sidecar const& sidecar, RunStop const& stop)
      : m_script(script), m_timeout(std::chrono::seconds(sidecar.timeout)), m_stop(stop)
  {
  }

  RunOutcome go(RunUser const& user, std::string const& subject)
  {
    EmptyDirectory const directory(user);
    if (directory.failure().empty() && start(user, directory.path(), subject))
      follow();
    else if (m_outcome.failure.empty())
      m_outcome.failure = directory.failure();
    finish();
    return std::move(m_outcome);
  }

private:
  bool start(RunUser const& user, std::string const& directory, std::string const& subject)
  {
    UniqueFd const input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    Pipe output;
    Pipe errors;
    Pipe report;
    if (!input.valid() || !output.open(O_NONBLOCK) || !errors.open(O_NONBLOCK) ||
        !report.open(O_NONBLOCK))
    {
      m_outcome.failure = "it cannot be started: " + errorText(errno);
      return false;
    }
    std::vector<std::string> const variables = {
        "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8",
        "TESSARINE_SUBJECT=" + subject};
    std::vector<char const*> environment;
    for (std::string const& variable : variables)
      environment.push_back(variable.c_str());
    environment.push_back(nullptr);
    char const* const arguments[] = {m_script.path.c_str(), nullptr};
    SupervisorPlan plan{};
    plan.parent = getpid();
    plan.input = input.get();
    plan.output = output.writing.get();
    plan.errors = errors.writing.get();
    plan.report = report.writing.get();
    plan.path = m_script.path.c_str();
    plan.device = m_script.mark.device;
    plan.inode = m_script.mark.inode;
    plan.directory = directory.c_str();
    plan.arguments = arguments;
    plan.environment = environment.data();
    plan.changesUser = user.changes;
    plan.user = user.id;
    plan.group = user.group;
    plan.groups = user.groups.data();
    plan.groupCount = user.groups.size();
    plan.timeout = m_timeout.count();
    plan.grace = GRACE.count();
    m_supervisor = startSupervisor(plan);
    if (m_supervisor < 0)
    {
      m_outcome.failure = "no process can be made for it: " + errorText(errno);
      return false;
    }
    m_output = std::move(output.reading);
    m_errors = std::move(errors.reading);
    m_report = std::move(report.reading);
    return true;
  }

  // Reads until nothing of the script is left, or for as long as it may be waited for.
  void follow()
  {
    while (m_output.valid() || m_errors.valid() || m_report.valid())
    {
      auto const now = Clock::now();
      auto const until = m_killAt ? std::min(*m_killAt, m_end) : m_end;
      if (now >= m_end)
        return;
      if (now >= until)
      {
        kill(m_supervisor, END_AT_ONCE);
        m_killAt.reset();
        continue;
      }
      pollfd waits[] = {{m_output.get(), POLLIN, 0},
                        {m_errors.get(), POLLIN, 0},
                        {m_report.get(), POLLIN, 0},
                        {m_outcome.stopped ? -1 : m_stop.descriptor(), POLLIN, 0}};
      auto const wait = std::chrono::ceil<milliseconds>(until - now).count();
      if (poll(waits, 4, static_cast<int>(wait)) < 0 && errno != EINTR)
        return;
      if (waits[3].revents != 0)
        stop();
      readOutput();
      readErrors();
      readReport();
    }
  }

  void stop()
  {
    m_outcome.stopped = true;
    kill(m_supervisor, SIGTERM);
    m_killAt = Clock::now() + GRACE_AT_STOP;
    m_end = std::min(m_end, *m_killAt + PATIENCE_AT_STOP);
  }

  // Takes what there is; false when there will be nothing more.
  template <class Take>
  static bool drain(UniqueFd const& from, Take take)
  {
    char buffer[16384];
    for (;;)
    {
      ssize_t const size = from.valid() ? read(from.get(), buffer, sizeof buffer) : -1;
      if (size > 0)
      {
        if (!take(buffer, static_cast<std::size_t>(size)))
          return false;
      }
      else if (size == 0 || errno != EINTR)
        return from.valid() && size < 0 && errno == EAGAIN;
    }
  }

  void readOutput()
  {
    if (drain(m_output,
              [this](char const* text, std::size_t size)
              {
                m_outcome.output.append(text, size);
                return m_outcome.output.size() <= OutputBounds::BYTES;
              }))
      return;
    if (m_output.valid() && m_outcome.output.size() > OutputBounds::BYTES)
    {
      m_tooMuch = true;
      kill(m_supervisor, SIGTERM);
    }
    m_output.reset();
  }

  void readErrors()
  {
    if (drain(m_errors,
              [this](char const* text, std::size_t size)
              {
                m_outcome.errors.append(text, size);
                if (m_outcome.errors.size() > ERROR_BYTES)
                  m_outcome.errors.erase(0, m_outcome.errors.size() - ERROR_BYTES);
                return true;
              }))
      return;
    m_errors.reset();
  }

  void readReport()
  {
    if (drain(m_report,
              [this](char const* text, std::size_t size)
              {
                m_reports.append(text, size);
                return true;
              }))
      return;
    m_report.reset();
  }

  void finish()
  {
    m_outcome.took = std::chrono::duration_cast<milliseconds>(Clock::now() - m_begin);
    keepLastLines();
    if (m_supervisor <= 0)
      return;
    if (m_output.valid() || m_errors.valid() || m_report.valid())
    {
      kill(m_supervisor, END_AT_ONCE);
      m_outcome.failure = "it could not be ended, and is left running under process " +
                          std::to_string(m_supervisor);
      std::lock_guard const guard(leftMutex);
      left.push_back(m_supervisor);
      return;
    }
    while (waitpid(m_supervisor, nullptr, 0) < 0 && errno == EINTR)
      ;
    m_outcome.failure = judge();
  }

  std::string judge()
  {
    SupervisorReport report{};
    if (m_outcome.stopped)
      return "it was ended, as the service stops";
    if (m_reports.size() < sizeof report)
      return "what watched over it was killed";
    std::memcpy(&report, m_reports.data(), sizeof report);
    m_outcome.memory = report.memory;
    std::string mistake;
    switch (report.what)
    {
    case SupervisorReport::Replaced:
      return "it was replaced by another file before it was run";
    case SupervisorReport::NotExecuted:
      return "it cannot be executed: " + errorText(report.value) +
             (report.value == ENOEXEC  ? "; a script begins with #! and its interpreter"
              : report.value == ENOENT ? "; its interpreter is not there"
                                       : "");
    case SupervisorReport::NoDirectory:
      return "its directory cannot be entered: " + errorText(report.value);
    case SupervisorReport::NoUser:
      return "it cannot be run as its user: " + errorText(report.value);
    case SupervisorReport::NoProcess:
      return "no process can be made for it: " + errorText(report.value);
    case SupervisorReport::TimedOut:
      return "it did not end within " + std::to_string(m_timeout.count() / 1000) + " seconds";
    default:
      break;
    }
    if (m_tooMuch)
      return "it printed more than 1 MiB";
    if (WIFSIGNALED(report.value))
      return "it was ended by signal " + std::to_string(WTERMSIG(report.value));
    if (WEXITSTATUS(report.value) != 0)
      return "it exited with " + std::to_string(WEXITSTATUS(report.value));
    return mayRun(m_script, mistake) ? "" : mistake;
  }

  void keepLastLines()
  {
    std::string& text = m_outcome.errors;
    while (!text.empty() && text.back() == '\n')
      text.pop_back();
    std::size_t from = text.size();
    for (std::size_t line = 0; line < ERROR_LINES && from != 0 && from != std::string::npos; ++line)
      from = text.rfind('\n', from - 1);
    if (from != 0 && from != std::string::npos && from < text.size())
      text.erase(0, from + 1);
  }

  ScriptFile const& m_script;
  milliseconds const m_timeout;
  RunStop const& m_stop;
  Clock::time_point const m_begin = Clock::now();
  Clock::time_point m_end = m_begin + m_timeout + GRACE + PATIENCE;
  std::optional<Clock::time_point> m_killAt;
  pid_t m_supervisor = -1;
  UniqueFd m_output;
  UniqueFd m_errors;
  UniqueFd m_report;
  std::string m_reports;
  bool m_tooMuch = false;
  RunOutcome m_outcome;
};

} // namespace

RunStop::RunStop() : m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void RunStop::stop() noexcept { eventfd_write(m_event.get(), 1); }

bool RunStop::stopped() const noexcept
{
  pollfd wait{m_event.get(), POLLIN, 0};
  return poll(&wait, 1, 0) == 1;
}

RunOutcome runScript(ScriptFile const& script, Sidecar const& sidecar, std::string const& subject,
                     RunStop const& stop)
{
  reapLeft();
  RunOutcome refused;
  RunUser user;
  if (!mayRun(script, refused.failure) || !findRunUser(sidecar.user, user, refused.failure))
    return refused;
  return Run(script, sidecar, stop).go(user, subject);
}

} // namespace Quillon::Tessarine::Ozf::Scripts
