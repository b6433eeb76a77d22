// Services that stand still, die in the middle of something, or never say a
// word.

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace tqtest
{

// How often the threads of a process have waited for something; every call
// that a service serves takes one wait at least.
inline long waitsOf(pid_t pid)
{
  long total = 0;
  std::error_code error;
  std::filesystem::directory_iterator const tasks("/proc/" + std::to_string(pid) + "/task", error);
  for (auto const& task : tasks)
  {
    std::ifstream status(task.path() / "status");
    for (std::string line; std::getline(status, line);)
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
        total += std::atol(line.c_str() + line.find(':') + 1);
  }
  return total;
}

// More than the service needs for a connection and for what comes before the
// pages.
constexpr long WAITS_IN_THE_MIDDLE = 200;

// A port of 127.0.0.1 that takes connections and never says anything.
class SilentPort
{
public:
  SilentPort() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof name;
    auto* const generic = reinterpret_cast<sockaddr*>(&name);
    EXPECT_EQ(bind(m_fd, generic, length), 0);
    EXPECT_EQ(listen(m_fd, 16), 0);
    EXPECT_EQ(getsockname(m_fd, generic, &length), 0);
    m_port = ntohs(name.sin_port);
  }
  ~SilentPort() { close(m_fd); }
  SilentPort(SilentPort const&) = delete;
  SilentPort& operator=(SilentPort const&) = delete;

  unsigned short port() const { return m_port; }

private:
  int m_fd;
  unsigned short m_port = 0;
};

} // namespace tqtest
