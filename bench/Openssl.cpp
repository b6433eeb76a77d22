#include "bench/Openssl.h"

#include "bench/Bench.h"
#include "bench/Service.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

namespace tqbench
{
namespace
{

constexpr char PROGRAM[] = "/usr/bin/openssl";
constexpr char SECONDS[] = "4"; // and up to one more, to the end of a whole one

// "1234 connections in ...".
double connectionsOf(std::string const& output)
{
  std::ifstream in(output);
  constexpr char WORD[] = " connections in ";
  for (std::string line; std::getline(in, line);)
    if (line.find(WORD) != std::string::npos)
      return std::stod(line);
  require(false, "openssl s_time has not said how often it connected");
  return 0;
}

} // namespace

OpensslPairs::OpensslPairs(std::string const& files) : m_files(files)
{
  for (unsigned i = 0; i < processors(); ++i)
  {
    unsigned short const port = freePort();
    m_servers.push_back(
        {startProgram({PROGRAM, "s_server", "-accept", "127.0.0.1:" + std::to_string(port), "-cert",
                       files + "/host.pem", "-key", files + "/host.key", "-CAfile",
                       files + "/ca.pem", "-Verify", "1", "-verify_return_error", "-verify_quiet",
                       "-quiet", "-www", "-no_ticket", "-num_tickets", "0"},
                      files + "/s_server" + std::to_string(i)),
         port});
  }
  for (Server const& server : m_servers)
    awaitListener(server.port);
}

OpensslPairs::~OpensslPairs()
{
  for (Server const& server : m_servers)
  {
    ::kill(server.pid, SIGKILL);
    ::waitpid(server.pid, nullptr, 0);
  }
}

double OpensslPairs::shakeHands()
{
  auto const outputOf = [&](Server const& server)
  { return m_files + "/s_time" + std::to_string(server.port); };
  std::vector<pid_t> clients;
  double const seconds = timed(
      [&]
      {
        for (Server const& server : m_servers)
        {
          std::filesystem::remove(outputOf(server));
          clients.push_back(startProgram({PROGRAM, "s_time", "-new", "-time", SECONDS, "-connect",
                                          "127.0.0.1:" + std::to_string(server.port), "-cert",
                                          m_files + "/host.pem", "-key", m_files + "/host.key",
                                          "-CAfile", m_files + "/ca.pem", "-verify", "1"},
                                         outputOf(server)));
        }
        for (pid_t const client : clients)
        {
          int status = 0;
          ::waitpid(client, &status, 0);
          require(WIFEXITED(status) && WEXITSTATUS(status) == 0, "openssl s_time failed");
        }
      });
  double connections = 0;
  for (Server const& server : m_servers)
    connections += connectionsOf(outputOf(server));
  require(connections > 0, "openssl s_time has made no connections");
  return seconds / connections;
}

} // namespace tqbench
