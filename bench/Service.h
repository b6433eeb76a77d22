// The service and its readers as the benchmarks bring them up: processes on
// loopback that share one product root.

#pragma once

#include "ozf/orb/Corba.h"
#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

#include <chrono>
#include <netinet/in.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tqbench
{

// The name under which master, reader and bare server know this machine.
inline constexpr char HOST[] = "benchmaster";

// A message that asks a service where its object is, and so may be sent by whoever has
// a connection and no ORB: a LocateRequest of GIOP 1.0.
inline constexpr char QUESTION[] = "GIOP\1\0\0\3\0\0\0\x18\0\0\0\1\0\0\0\x10"
                                   "DiscoveryService";

// 127.0.0.1, or another address of loopback, with that port.
sockaddr_in loopbackAt(unsigned short port, in_addr_t address = INADDR_LOOPBACK);

// This process, and those that it starts from now on, may have that many connections
// open, and what else they need.
void raiseDescriptorLimit(std::size_t connections);

// Of this machine, at least 1.
unsigned processors();

// Starts the program, the first of the words, with the others; what it says is appended
// to the file.
pid_t startProgram(std::vector<std::string> words, std::string const& output);

// A port of loopback that is free now.
unsigned short freePort();

// Until a connection to that port of 127.0.0.1 can be made.
void awaitListener(unsigned short port);

// Makes the root's configuration: a master on loopback, and what more says.
// Takes hold in this process at the next reloadConfiguration.
void writeConfiguration(std::string const& root, unsigned short port, std::string const& more = "");

// Seconds of processor time that a child process has taken so far.
double processorTimeOf(pid_t process);

// While it lives this process runs on one processor, and the servers on another, as hosts
// would, or on the same, where what they do is all that is measured. Left to the
// scheduler, a server may stay on its caller's processor, or be woken on another that
// sleeps, which costs more than all that either does.
class Placement
{
public:
  enum Servers
  {
    APART,
    TOGETHER
  };
  Placement(Servers where, std::vector<pid_t> servers);
  ~Placement();
  Placement(Placement const&) = delete;
  Placement& operator=(Placement const&) = delete;

  // Whether this machine has two processors for this process.
  static bool canBeApart();

private:
  std::vector<pid_t> const m_servers;
};

// tqdisco with the root that TESSARINE_ROOT names.
class ServiceProcess
{
public:
  explicit ServiceProcess(std::string program);
  ~ServiceProcess();
  ServiceProcess(ServiceProcess const&) = delete;
  ServiceProcess& operator=(ServiceProcess const&) = delete;

  // Resident memory in KiB.
  double memory() const;

  // The most that it has been so far.
  double mostMemory() const;
  double threads() const;
  pid_t pid() const noexcept { return m_pid; }
  // Seconds of processor time so far.
  double processorTime() const { return processorTimeOf(m_pid); }

private:
  double statusOf(char const* key) const;

  pid_t m_pid = 0;
};

// The object called name that the service on HOST publishes, as soon as it
// answers.
CORBA::Object_ptr connectTo(Quillon::Tessarine::Ozf::Orb& orb, char const* service,
                            char const* name);

template <class Interface>
typename Interface::_ptr_type connectTo(Quillon::Tessarine::Ozf::Orb& orb, char const* service,
                                        char const* name)
{
  CORBA::Object_var const object = connectTo(orb, service, name);
  return Interface::_narrow(object);
}

// Has a client of its own process, whose connection is new, ask the service for one of
// the records that makeDatabase made, again and again with that pause between: seconds
// of the median query.
double queryApart(int queries, std::chrono::milliseconds pause = {});

// A service over a database that is there, as a reader in this process calls it.
class StoredService
{
public:
  // database is opened here as well, and becomes the product root of both.
  StoredService(std::string const& database, std::string const& program);

  ServiceProcess const process;
  Quillon::Tessarine::Ozf::Orb orb;
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_var service;
};

} // namespace tqbench
