// Programs as processes of a test's own: started with arguments and
// environment, their output collected, ended with the object at the latest.

#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

class Process
{
public:
  using Environment = std::map<std::string, std::string>;

  // Starts the program at path with this process's environment and the
  // additions. A program that cannot be executed exits with 127. It dies with
  // the thread that started it at the latest.
  Process(std::string const& path, std::vector<std::string> const& arguments,
          Environment const& additions = {})
  {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 ||
        fcntl(out[0], F_SETFL, O_NONBLOCK) != 0 || fcntl(err[0], F_SETFL, O_NONBLOCK) != 0)
      std::abort();
    std::vector<std::string> const texts = environmentWith(additions);
    std::vector<char*> environment = pointers(texts);
    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv = pointers(words);

    m_pid = fork();
    if (m_pid < 0)
      std::abort();
    if (m_pid == 0)
    {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (int const signal : {SIGINT, SIGQUIT}) // ignored where a shell runs the tests behind it
        std::signal(signal, SIG_DFL);
      dup2(out[1], STDOUT_FILENO);
      dup2(err[1], STDERR_FILENO);
      execve(path.c_str(), argv.data(), environment.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    m_streams[0].end = out[0];
    m_streams[1].end = err[0];
    m_reader = std::thread([this] { collect(); });
  }

  ~Process()
  {
    if (running())
      sendSignal(SIGKILL);
    wait(std::chrono::seconds(30));
    m_reader.join();
  }
  Process(Process const&) = delete;
  Process& operator=(Process const&) = delete;

  pid_t pid() const { return m_pid; }

  void sendSignal(int signal)
  {
    if (!m_reaped)
      ::kill(m_pid, signal);
  }

  // Stops it as a debugger would, until SIGCONT. A signal takes effect some
  // time after it was sent; this waits for that.
  void freeze()
  {
    sendSignal(SIGSTOP);
    siginfo_t stopped{};
    while (waitid(P_PID, static_cast<id_t>(m_pid), &stopped, WSTOPPED | WEXITED | WNOWAIT) != 0 &&
           errno == EINTR)
      ;
  }

  bool running() { return !reap(WNOHANG); }

  // Whether the process ended before the deadline. All output is collected
  // then, unless it left children behind that hold it open.
  bool wait(std::chrono::milliseconds limit = std::chrono::seconds(60))
  {
    auto const deadline = std::chrono::steady_clock::now() + limit;
    while (!reap(WNOHANG))
    {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    while (!outputEnded() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
  }

  // The exit code; 128 and the signal's number when a signal ended it; -1
  // while it runs.
  int exitCode()
  {
    if (!reap(WNOHANG))
      return -1;
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 128 + WTERMSIG(m_status);
  }

  // What was written so far.
  std::string output() const { return copy(m_streams[0].text); }
  std::string errors() const { return copy(m_streams[1].text); }

  // Whether text appears on standard error before the deadline.
  bool awaitError(std::string const& text,
                  std::chrono::milliseconds limit = std::chrono::seconds(60))
  {
    auto const deadline = std::chrono::steady_clock::now() + limit;
    while (errors().find(text) == std::string::npos)
    {
      if (std::chrono::steady_clock::now() > deadline || (!running() && outputEnded()))
        return errors().find(text) != std::string::npos;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }

private:
  static std::vector<std::string> environmentWith(Environment const& additions)
  {
    std::vector<std::string> result;
    for (char** variable = environ; *variable != nullptr; ++variable)
    {
      std::string const text = *variable;
      if (additions.count(text.substr(0, text.find('='))) == 0)
        result.push_back(text);
    }
    for (auto const& [name, value] : additions)
      result.push_back(name + "=" + value);
    return result;
  }

  static std::vector<char*> pointers(std::vector<std::string> const& texts)
  {
    std::vector<char*> result;
    for (auto const& text : texts)
      result.push_back(const_cast<char*>(text.c_str()));
    result.push_back(nullptr);
    return result;
  }

  bool reap(int flags)
  {
    if (!m_reaped && waitpid(m_pid, &m_status, flags) == m_pid)
      m_reaped = true;
    return m_reaped;
  }

  bool outputEnded() const
  {
    std::lock_guard guard(m_mutex);
    return m_ended;
  }

  // All that the process had written when it was asked for, even where the
  // reader has not come to it yet.
  std::string copy(std::string const& text) const
  {
    std::lock_guard guard(m_mutex);
    for (Stream& stream : m_streams)
      if (stream.end >= 0)
        drain(stream);
    return text;
  }

  // One end of a pipe that does not block, and what came out of it.
  struct Stream
  {
    int end = -1;
    std::string text;
  };

  // With m_mutex held. False when nothing will come any more.
  static bool drain(Stream& stream)
  {
    char buffer[4096];
    for (;;)
    {
      ssize_t const count = read(stream.end, buffer, sizeof buffer);
      if (count > 0)
        stream.text.append(buffer, static_cast<std::size_t>(count));
      else if (count == 0 || errno != EINTR)
        return count < 0 && errno == EAGAIN;
    }
  }

  // Only here an end is closed, as nobody else waits for it.
  void collect()
  {
    pollfd waits[] = {{m_streams[0].end, POLLIN, 0}, {m_streams[1].end, POLLIN, 0}};
    while (waits[0].fd >= 0 || waits[1].fd >= 0)
    {
      poll(waits, 2, -1);
      std::lock_guard guard(m_mutex);
      for (std::size_t i = 0; i < 2; ++i)
      {
        if (waits[i].fd < 0 || waits[i].revents == 0 || drain(m_streams[i]))
          continue;
        close(waits[i].fd);
        waits[i].fd = m_streams[i].end = -1;
      }
    }
    std::lock_guard guard(m_mutex);
    m_ended = true;
  }

  pid_t m_pid = -1;
  int m_status = 0;
  bool m_reaped = false;
  std::thread m_reader;
  mutable std::mutex m_mutex;
  bool m_ended = false;
  mutable std::array<Stream, 2> m_streams; // standard output and standard error
};
