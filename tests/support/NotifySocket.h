// The service manager's end of what a service tells it.

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tqtest
{

// What the service manager is told.
class NotifySocket
{
public:
  explicit NotifySocket(std::string const& path)
      : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&name), sizeof name) != 0)
      ADD_FAILURE() << "cannot bind " << path;
  }
  ~NotifySocket() { close(m_fd); }
  NotifySocket(NotifySocket const&) = delete;
  NotifySocket& operator=(NotifySocket const&) = delete;

  // Whether a message that holds text comes before the deadline.
  bool await(std::string const& text, std::chrono::milliseconds time = std::chrono::seconds(60))
  {
    return !awaitMessage(text, time).empty();
  }

  // That message; empty when none comes.
  std::string awaitMessage(std::string const& text, std::chrono::milliseconds time)
  {
    auto const deadline = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < deadline)
    {
      pollfd wait{m_fd, POLLIN, 0};
      if (poll(&wait, 1, 100) != 1)
        continue;
      char buffer[1024];
      ssize_t const count = recv(m_fd, buffer, sizeof buffer, 0);
      std::string message(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
      if (message.find(text) != std::string::npos)
        return message;
    }
    return {};
  }

private:
  int m_fd;
};

} // namespace tqtest
