// The service while very many clients hold a connection and say nothing.

#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include "ozf/config/Configuration.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace tqbench
{
namespace
{

constexpr std::size_t CONNECTIONS = 2000;
constexpr int PHASES = 5;
constexpr int QUERIES = 400;
constexpr std::size_t RECORDS = 100;

// Connections that have each asked the service whether it has the object, and
// keep still then.
class IdleClients
{
public:
  IdleClients(unsigned short port, std::size_t count)
  {
    sockaddr_in address = loopbackAt(port);
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
  // Asks, and reads the answer, which is in little endian.
  static void locate(int socket)
  {
    constexpr std::size_t HEADER = 12;
    require(::send(socket, QUESTION, sizeof QUESTION - 1, MSG_NOSIGNAL) ==
                static_cast<ssize_t>(sizeof QUESTION - 1),
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

} // namespace

std::vector<Row> benchIdleConnections(Settings const& settings)
{
  raiseDescriptorLimit(CONNECTIONS);
  makeDatabase(settings.directory, RECORDS);
  openDatabase(settings.directory);
  unsigned short const port = freePort();
  writeConfiguration(settings.directory, port);
  require(reloadConfiguration(), "the configuration was refused");
  ServiceProcess const process(settings.service);

  queryApart(QUERIES); // as soon as it serves, and everything warm
  std::vector<double> with;
  std::vector<double> without;
  std::vector<double> memory;
  std::vector<double> threads;
  for (int phase = 0; phase < PHASES; ++phase)
  {
    without.push_back(queryApart(QUERIES));
    double const before = process.memory();
    IdleClients const clients(port, CONNECTIONS);
    with.push_back(queryApart(QUERIES));
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
