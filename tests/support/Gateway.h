// tqdiscoweb as a process beside a live service, and a client of it.

#pragma once

#include "tests/support/LiveService.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace tqtest
{

// A connection of HTTP on which bytes go as the test has them.
class HttpConnection
{
public:
  enum Takes
  {
    TAKES_ALL,
    TAKES_LITTLE // has next to no room for what it has not read
  };

  // from: the client's own address on loopback.
  explicit HttpConnection(unsigned short port, char const* from = "127.0.0.1",
                          Takes takes = TAKES_ALL)
      : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    int const little = 4096;
    if (takes == TAKES_LITTLE)
      setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    inet_pton(AF_INET, from, &own.sin_addr);
    sockaddr_in server = own;
    inet_pton(AF_INET, "127.0.0.1", &server.sin_addr);
    server.sin_port = htons(port);
    m_connected = bind(m_fd, reinterpret_cast<sockaddr*>(&own), sizeof own) == 0 &&
                  connect(m_fd, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0;
    setTimeout();
  }
  explicit HttpConnection(std::string const& path)
      : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_un server{};
    server.sun_family = AF_UNIX;
    path.copy(server.sun_path, sizeof server.sun_path - 1);
    m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0;
    setTimeout();
  }
  ~HttpConnection() { close(m_fd); }
  HttpConnection(HttpConnection const&) = delete;
  HttpConnection& operator=(HttpConnection const&) = delete;

  bool connected() const { return m_connected; }

  bool send(std::string_view text) const
  {
    while (!text.empty())
    {
      ssize_t const count = ::send(m_fd, text.data(), text.size(), MSG_NOSIGNAL);
      if (count <= 0)
        return false;
      text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  void endSending() const { shutdown(m_fd, SHUT_WR); }

  // All that came before the end of the connection, or before a minute without anything.
  std::string readToEnd()
  {
    while (more())
      ;
    return std::move(m_text);
  }

  // Whether this text comes; what came stands in text().
  bool await(std::string const& part)
  {
    while (m_text.find(part) == std::string::npos)
      if (!more())
        return false;
    return true;
  }
  std::string const& text() const { return m_text; }

  // Whether anything does within the time.
  bool comes(std::chrono::milliseconds time) const
  {
    pollfd waited{m_fd, POLLIN, 0};
    return poll(&waited, 1, static_cast<int>(time.count())) > 0;
  }

  // Whether the server has ended the connection.
  bool isEnded()
  {
    char c = 0;
    ssize_t const count = recv(m_fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
  }

private:
  void setTimeout() const
  {
    timeval const minute{60, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &minute, sizeof minute);
  }

  bool more()
  {
    char buffer[65536];
    ssize_t const count = recv(m_fd, buffer, sizeof buffer, 0);
    if (count > 0)
      m_text.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
  }

  int m_fd;
  bool m_connected = false;
  std::string m_text;
};

struct HttpAnswer
{
  int status = 0;
  std::string head;
  std::string body;

  // Of "HTTP/1.1 200 OK ...", with its body as it came.
  explicit HttpAnswer(std::string const& text)
  {
    auto const end = text.find("\r\n\r\n");
    head = text.substr(0, end);
    body = end == std::string::npos ? "" : text.substr(end + 4);
    if (head.starts_with("HTTP/1.") && head.size() > 12)
      status = std::atoi(head.c_str() + 9);
  }

  // Empty when there is none; letter case of the name does not count.
  std::string header(std::string name) const
  {
    auto const lower = [](std::string text)
    {
      std::transform(text.begin(), text.end(), text.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      return text;
    };
    auto const at = lower(head).find("\r\n" + lower(std::move(name)) + ": ");
    if (at == std::string::npos)
      return {};
    auto const begin = head.find(": ", at) + 2;
    return head.substr(begin, head.find("\r\n", begin) - begin);
  }

  nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
};

class Gateway
{
public:
  // entries: further lines of the service's configuration, which both read.
  explicit Gateway(LiveService& service, std::string const& entries = "")
      : m_service(service), m_port(freePort())
  {
    m_service.configure("WEB_LISTEN = 127.0.0.1:" + std::to_string(m_port) +
                        "\nWEB_LIST_INTERVAL = 1s\nWEB_MASTER_SHARE = 50\n" + entries);
  }

  // The folder of the page that it serves from its next start on.
  void setPage(std::string folder) { m_page = std::move(folder); }

  bool start(Process::Environment const& more = {})
  {
    return launch("main: Started, version", more);
  }

  // Whether it tells the line; more: further variables of its environment.
  bool launch(std::string const& line, Process::Environment const& more = {})
  {
    Process::Environment environment{{"TESSARINE_ROOT", m_service.root()}};
    environment.insert(more.begin(), more.end());
    std::vector<std::string> options{"--log-level", "1"};
    if (!m_page.empty())
      options.insert(options.end(), {"--page", m_page});
    m_process = std::make_unique<Process>(TQ_BIN_DIR "/tqdiscoweb", options, environment);
    return m_process->awaitError(line);
  }

  // The exit code, or -1 when it does not end in time.
  int stop()
  {
    m_process->sendSignal(SIGTERM);
    return m_process->wait() ? m_process->exitCode() : -1;
  }

  // more: further lines of the header, each with its end.
  HttpAnswer get(std::string const& target, std::string const& more = "") const
  {
    HttpConnection connection(m_port);
    connection.send("GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" +
                    more + "\r\n");
    return HttpAnswer(connection.readToEnd());
  }

  // Whether the master of that name, or all of them, come to that state.
  bool awaitState(std::string const& state, std::string const& master = "") const
  {
    return eventually(
        [&]
        {
          auto const masters = get("/api/v1/status").json()["masters"];
          return !masters.empty() &&
                 std::all_of(masters.begin(), masters.end(),
                             [&](auto const& each) {
                               return (!master.empty() && each["master"] != master) ||
                                      each["state"] == state;
                             });
        });
  }

  // Whether so many discoveries are listed.
  bool awaitDiscoveries(std::size_t count) const
  {
    return eventually([&] { return get("/api/v1/status").json()["discoveries"] == count; });
  }

  // What it has in memory, in MiB.
  long memory() const
  {
    std::ifstream in("/proc/" + std::to_string(m_process->pid()) + "/status");
    for (std::string line; std::getline(in, line);)
      if (line.starts_with("VmRSS:"))
        return std::atol(line.c_str() + 6) / 1024;
    return 0;
  }

  unsigned short port() const { return m_port; }
  Process& process() { return *m_process; }
  std::string log() const { return m_process->errors(); }

private:
  LiveService& m_service;
  unsigned short m_port;
  std::string m_page; // empty: the one beside the program
  std::unique_ptr<Process> m_process;
};

} // namespace tqtest
