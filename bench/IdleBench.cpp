// The service while very many clients hold a connection and say nothing.

#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>

namespace tqbench
{
namespace
{

constexpr std::size_t CONNECTIONS = 2000;
constexpr int PHASES = 5;
constexpr int QUERIES = 400;
constexpr std::size_t RECORDS = 100;

// The program needs one descriptor for each connection.
void raiseDescriptorLimit()
{
  rlimit limit{};
  require(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "no limit of open files");
  limit.rlim_cur = limit.rlim_max;
  require(::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur > CONNECTIONS + 100,
          "too few files may be open");
}

// Connections that have each asked the service whether it has the object, and
// keep still then.
class IdleClients
{
public:
  IdleClients(unsigned short port, std::size_t count)
  {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (std::size_t i = 0; i < count; ++i)
    {
      m_sockets.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      require(::connect(m_sockets.back(), reinterpret_cast<sockaddr*>(&address), sizeof address) ==
                  0,
              "the service does not accept a connection");
      locate(m_sockets.back());
    }
  }
  ~IdleClients()
  {
    for (int const socket : m_sockets)
      ::close(socket);
  }
  IdleClients(IdleClients const&) = delete;
  IdleClients& operator=(IdleClients const&) = delete;

  // Whether the service has closed none of them.
  bool whole() const
  {
    return std::all_of(m_sockets.begin(), m_sockets.end(),
                       [](int socket)
                       {
                         char byte = 0;
                         return ::recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0;
                       });
  }

private:
  // GIOP 1.0 in little endian: a LocateRequest for the key, and its reply.
  static void locate(int socket)
  {
    constexpr std::size_t HEADER = 12;
    static constexpr char KEY[] = "DiscoveryService";
    constexpr unsigned char KEY_SIZE = sizeof KEY - 1;
    std::array<unsigned char, HEADER + 8 + KEY_SIZE> request = {
        'G', 'I', 'O', 'P', 1, 0, 1, 3, 8 + KEY_SIZE, 0, 0, 0, 1, 0, 0, 0, KEY_SIZE, 0, 0, 0};
    std::memcpy(request.data() + HEADER + 8, KEY, KEY_SIZE);
    require(::send(socket, request.data(), request.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(request.size()),
            "nothing can be sent to the service");
    std::array<unsigned char, HEADER + 8> reply = {};
    constexpr unsigned char LOCATE_REPLY = 4;
    constexpr unsigned char OBJECT_HERE = 1;
    require(::recv(socket, reply.data(), reply.size(), MSG_WAITALL) ==
                    static_cast<ssize_t>(reply.size()) &&
                reply[7] == LOCATE_REPLY && reply[HEADER + 4] == OBJECT_HERE,
            "the service does not know its object");
  }

  std::vector<int> m_sockets;
};

struct Answer
{
  double seconds = 0; // of the median query
  bool complete = false;
};

// A client of its own process, whose connection comes after all others.
Answer queryApart()
{
  int ends[2];
  require(::pipe(ends) == 0, "no pipe");
  pid_t const pid = ::fork();
  require(pid >= 0, "no process");
  if (pid == 0)
  {
    Answer answer;
    try
    {
      Orb orb(0, "", "tqbench", 0, 0);
      require(orb.init() && orb.run(0) == 0, "no ORB");
      Remote::DiscoveryService_var service =
          connectTo<Remote::DiscoveryService>(orb, "DiscoveryService", "DiscoveryService");
      std::vector<double> times;
      for (int i = 0; i < QUERIES; ++i)
        times.push_back(timed(
            [&]
            {
              Remote::DiscoveryIterator_var const iterator = service->queryDiscoveries(
                  DQ_DISCOVERY_DATA, TYPE, subjectName(7).c_str(), AUTHORITY);
              Remote::DiscoverySeq_var const page = iterator->getNextPage();
              require(page->length() == 1, "the discovery was not found");
              iterator->release();
            }));
      answer = {median(times), true};
    }
    catch (...)
    {
    }
    ssize_t const count = ::write(ends[1], &answer, sizeof answer);
    ::_exit(count == sizeof answer ? 0 : 1);
  }
  ::close(ends[1]);
  Answer answer;
  ssize_t const count = ::read(ends[0], &answer, sizeof answer);
  ::close(ends[0]);
  ::waitpid(pid, nullptr, 0);
  require(count == sizeof answer && answer.complete, "the service could not be queried");
  return answer;
}

} // namespace

std::vector<Row> benchIdleConnections(Settings const& settings)
{
  raiseDescriptorLimit();
  makeDatabase(settings.directory, RECORDS);
  openDatabase(settings.directory);
  unsigned short const port = freePort();
  writeConfiguration(settings.directory, port);
  require(reloadConfiguration(), "the configuration was refused");
  ServiceProcess const process(settings.service);

  queryApart(); // as soon as it serves, and everything warm
  std::vector<double> with;
  std::vector<double> without;
  std::vector<double> memory;
  std::vector<double> threads;
  for (int phase = 0; phase < PHASES; ++phase)
  {
    without.push_back(queryApart().seconds);
    double const before = process.memory();
    IdleClients const clients(port, CONNECTIONS);
    with.push_back(queryApart().seconds);
    memory.push_back((process.memory() - before) / CONNECTIONS);
    threads.push_back(process.threads());
    require(clients.whole(), "the service closed connections meanwhile");
  }
  std::string const many = std::to_string(CONNECTIONS) + " idle connections";
  return {{"query by a new client beside " + many, "us", median(with) * 1e6, "without them",
           median(without) * 1e6, 1.3},
          {"memory of the service for each of " + many + ", first time",
           "KiB",
           memory.front(),
           "",
           {},
           {}},
          {"threads of the service with " + many,
           "",
           *std::max_element(threads.begin(), threads.end()),
           "",
           {},
           {}}};
}

} // namespace tqbench
