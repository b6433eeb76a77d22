#include "explorers/CommandOutput.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <thread>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "CommandOutput";

using Clock = std::chrono::steady_clock;

// 0, or an errno value.
int spawn(std::vector<std::string> const& words, int output, pid_t& child)
{
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<std::string> copies(words);
  std::vector<char*> arguments;
  for (std::string& word : copies)
    arguments.push_back(word.data());
  arguments.push_back(nullptr);
  char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  char language[] = "LC_ALL=C";
  std::array<char*, 3> environment = {path, language, nullptr};
  int const error = posix_spawn(&child, arguments[0], &actions, &attributes, arguments.data(),
                                environment.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

int millisecondsUntil(Clock::time_point end)
{
  auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

// Why it was not read to its end; null when it was.
char const* readUntil(int fd, Clock::time_point end, std::size_t limit, std::string& text)
{
  std::array<char, 65536> buffer;
  for (;;)
  {
    pollfd ready = {fd, POLLIN, 0};
    int const result = poll(&ready, 1, millisecondsUntil(end));
    if (result == 0)
      return "it takes too long";
    if (result < 0 && errno != EINTR)
      return "its output cannot be waited for";
    ssize_t const count = result < 0 ? -1 : read(fd, buffer.data(), buffer.size());
    if (count == 0)
      return nullptr;
    if (count < 0 && errno != EINTR)
      return "its output cannot be read";
    if (count > 0 && static_cast<std::size_t>(count) > limit - text.size())
      return "it prints too much";
    if (count > 0)
      text.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

// Waits for the child alone; false when it is still there at the end.
bool collect(pid_t child, Clock::time_point end, int& status)
{
  constexpr std::chrono::milliseconds PAUSE(5);
  for (;;)
  {
    pid_t const result = waitpid(child, &status, WNOHANG);
    if (result == child || (result < 0 && errno != EINTR))
      return true;
    if (Clock::now() >= end)
      return false;
    std::this_thread::sleep_for(PAUSE);
  }
}

} // namespace

std::optional<std::string> outputOf(std::vector<std::string> const& words,
                                    std::chrono::milliseconds patience, std::size_t limit)
{
  auto const fail = [&words](std::string const& reason) -> std::optional<std::string>
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "outputOf", "Cannot use " << words[0] << ": " << reason);
    return std::nullopt;
  };
  auto const end = Clock::now() + patience;
  std::array<int, 2> ends = {-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0)
    return fail(errorText(errno));
  UniqueFd const readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  pid_t child = -1;
  if (int const error = spawn(words, writeEnd.get(), child); error != 0)
    return fail(errorText(error));
  writeEnd.reset();

  std::string text;
  int status = 0;
  char const* failure = readUntil(readEnd.get(), end, limit, text);
  if (failure == nullptr && !collect(child, end, status))
    failure = "it takes too long";
  // Before the child is collected its number, which is that of its group, cannot be
  // another's.
  if (failure != nullptr)
  {
    kill(-child, SIGKILL);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
      ;
    return fail(failure);
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return fail(WIFEXITED(status) ? "it ended with exit code " + std::to_string(WEXITSTATUS(status))
                                  : "it was ended by signal " + std::to_string(WTERMSIG(status)));
  return text;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
