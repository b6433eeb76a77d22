// The gateway: the list of hosts beside a static file on the same server library, the metrics,
// what a master spends on a gateway that nobody asks, and the gateway's memory.

#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include <csignal>
#include <fcntl.h>
#include <microhttpd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <thread>

namespace tqbench
{
namespace
{

using namespace std::chrono_literals;

constexpr int CLIENTS = 4;
constexpr int REQUESTS = 50; // of each client, in a round
constexpr int HOST_ROUNDS = 9;
constexpr unsigned FLOOR_THREADS = 2; // as many as the gateway has

// A client that keeps its connection.
class WebClient
{
public:
  explicit WebClient(unsigned short port) : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_in address = loopbackAt(port);
    m_connected = ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~WebClient() { ::close(m_fd); }
  WebClient(WebClient const&) = delete;
  WebClient& operator=(WebClient const&) = delete;

  bool connected() const { return m_connected; }

  // The body of the answer; empty when it is no success.
  std::string get(std::string const& target)
  {
    std::string const request = "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    if (::send(m_fd, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size()))
      return {};
    std::string text;
    auto const end = [&] { return text.find("\r\n\r\n"); };
    while (end() == std::string::npos)
      if (!more(text))
        return {};
    constexpr std::string_view LENGTH = "Content-Length: ";
    auto const length = text.find(LENGTH);
    if (!text.starts_with("HTTP/1.1 200") || length == std::string::npos)
      return {};
    std::size_t const begin = end() + 4;
    std::size_t const whole = begin + std::stoul(text.substr(length + LENGTH.size(), 20));
    text.reserve(whole);
    while (text.size() < whole)
      if (!more(text))
        return {};
    return text.substr(begin);
  }

private:
  bool more(std::string& text)
  {
    ssize_t const count = ::recv(m_fd, m_buffer.data(), m_buffer.size(), 0);
    if (count > 0)
      text.append(m_buffer.data(), static_cast<std::size_t>(count));
    return count > 0;
  }

  int m_fd;
  bool m_connected = false;
  std::array<char, 1 << 18> m_buffer;
};

// A server of one file, in a process of its own.
class FileServer
{
public:
  FileServer(std::string path, unsigned short port)
  {
    m_pid = ::fork();
    require(m_pid >= 0, "no process");
    if (m_pid == 0)
    {
      serve(path, port);
      ::_exit(0);
    }
  }
  ~FileServer()
  {
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
  }
  FileServer(FileServer const&) = delete;
  FileServer& operator=(FileServer const&) = delete;

private:
  static MHD_Result answer(void* path, MHD_Connection* connection, char const*, char const*,
                           char const*, char const*, std::size_t*, void** context)
  {
    static char seen;
    if (*context == nullptr)
    {
      *context = &seen;
      return MHD_YES;
    }
    *context = nullptr;
    std::string const& file = *static_cast<std::string const*>(path);
    int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    MHD_Response* const response =
        MHD_create_response_from_fd(std::filesystem::file_size(file), fd);
    MHD_Result const result = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return result;
  }

  static void serve(std::string& path, unsigned short port)
  {
    MHD_Daemon* const daemon = MHD_start_daemon(
        MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL, port, nullptr, nullptr, &answer, &path,
        MHD_OPTION_THREAD_POOL_SIZE, FLOOR_THREADS, MHD_OPTION_END);
    while (daemon != nullptr)
      ::pause();
  }

  pid_t m_pid;
};

// A master with so many records in the root, and a gateway beside it that has them all.
class GatewayPair
{
public:
  GatewayPair(Settings const& settings, std::string const& root, std::size_t records)
      : m_port(prepare(root)),
        m_master(settings.service),
        m_gateway(std::filesystem::path(settings.service).replace_filename("tqdiscoweb"))
  {
    std::string const all = "\"discoveries\":" + std::to_string(records);
    for (auto const end = std::chrono::steady_clock::now() + 120s;;)
    {
      WebClient client(m_port);
      if (client.connected() && client.get("/api/v1/status").starts_with('{' + all))
        return;
      require(std::chrono::steady_clock::now() < end, "the gateway has no list");
      std::this_thread::sleep_for(100ms);
    }
  }

  unsigned short port() const { return m_port; }
  ServiceProcess const& master() const { return m_master; }
  ServiceProcess const& gateway() const { return m_gateway; }

private:
  static unsigned short prepare(std::string const& root)
  {
    unsigned short const port = freePort();
    writeConfiguration(root, freePort(),
                       "WEB_LISTEN = 127.0.0.1:" + std::to_string(port) +
                           "\nWEB_LOG_FILE = " + root + "/tqdiscoweb.log\n");
    ::setenv("TESSARINE_ROOT", root.c_str(), 1);
    return port;
  }

  unsigned short m_port;
  ServiceProcess m_master;
  ServiceProcess m_gateway;
};

// Seconds of one answer, while several clients ask at once.
double askTogether(unsigned short port, std::size_t size)
{
  std::vector<std::jthread> threads;
  std::atomic<bool> right{true};
  double const seconds = timed(
      [&]
      {
        for (int i = 0; i < CLIENTS; ++i)
          threads.emplace_back(
              [&]
              {
                WebClient client(port);
                for (int j = 0; j < REQUESTS; ++j)
                  if (client.get("/api/v1/hosts").size() != size)
                    right = false;
              });
        threads.clear();
      });
  require(right, "an answer was not whole");
  return seconds / (CLIENTS * REQUESTS);
}

} // namespace

std::vector<Row> benchGatewayHosts(Settings const& settings)
{
  constexpr std::size_t HOSTS = 10'000;
  makeDatabase(settings.directory, HOSTS);
  GatewayPair const pair(settings, settings.directory, HOSTS);
  std::string const list = WebClient(pair.port()).get("/api/v1/hosts");
  require(!list.empty(), "there is no list of hosts");
  std::string const path = settings.directory + "/hosts.json";
  std::ofstream(path) << list;
  unsigned short const port = freePort();
  FileServer const floor(path, port);
  std::this_thread::sleep_for(500ms);
  auto const seconds =
      alternate(settings,
                {{"product", [&] { return askTogether(pair.port(), list.size()); }},
                 {"file", [&] { return askTogether(port, list.size()); }}},
                HOST_ROUNDS);
  return {{"GET /api/v1/hosts of " + std::to_string(HOSTS) + " hosts, " +
               std::to_string(list.size() / 1024) + " KiB, " + std::to_string(CLIENTS) + " clients",
           "ms", seconds[0] * 1e3, "static file on the same library", seconds[1] * 1e3, 2.0}};
}

std::vector<Row> benchGatewayMetrics(Settings const& settings)
{
  constexpr std::size_t HOSTS = 10'000;
  constexpr int ASKED = 500;
  makeDatabase(settings.directory, HOSTS);
  GatewayPair const pair(settings, settings.directory, HOSTS);
  WebClient client(pair.port());
  std::vector<double> seconds;
  for (int i = 0; i < ASKED; ++i)
  {
    std::string text;
    seconds.push_back(timed([&] { text = client.get("/metrics"); }));
    require(text.find("tqdisco_hosts " + std::to_string(HOSTS)) != std::string::npos,
            "the metrics do not tell of all hosts");
  }
  constexpr double MS = 1e3;
  std::string const work = "GET /metrics of " + std::to_string(HOSTS) + " hosts";
  double const longest = *std::max_element(seconds.begin(), seconds.end());
  return {{work, "ms", median(std::move(seconds)) * MS, "", {}, 5.0},
          {work + ", the longest of " + std::to_string(ASKED), "ms", longest * MS, "", {}, {}}};
}

std::vector<Row> benchGatewayRest(Settings const& settings)
{
  constexpr std::size_t RECORDS = 30'000;
  constexpr auto LONG = 120s;
  makeDatabase(settings.directory, RECORDS);
  GatewayPair const pair(settings, settings.directory, RECORDS);
  double const before = pair.master().processorTime();
  std::this_thread::sleep_for(LONG);
  double const share =
      (pair.master().processorTime() - before) / std::chrono::duration<double>(LONG).count() * 100;
  return {{"a gateway that nobody asks, " + std::to_string(RECORDS) +
               " records: the master's processor time",
           "% of one",
           share,
           "",
           {},
           1.0}};
}

std::vector<Row> benchGatewayMemory(Settings const& settings)
{
  constexpr double MIB = 1024;
  GatewayPair const pair(settings, settings.database, settings.records);
  for (int i = 0; i < 100; ++i)
  {
    WebClient client(pair.port());
    client.get(i % 2 == 0 ? "/api/v1/hosts" : "/api/v1/discoveries?limit=10000");
    std::this_thread::sleep_for(200ms);
  }
  return {{"gateway with " + std::to_string(settings.records) + " discoveries, memory at most",
           "MiB",
           pair.gateway().mostMemory() / MIB,
           "",
           {},
           150.0}};
}

} // namespace tqbench
