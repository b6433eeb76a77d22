// The service and its readers as the benchmarks bring them up: processes on
// loopback that share one product root.

#pragma once

#include "ozf/orb/Corba.h"

#include <DiscoveryServiceC.h>

#include <string>
#include <sys/types.h>

namespace Quillon::Tessarine::Ozf
{
class Orb;
}

namespace tqbench
{

// The name under which master, reader and bare server know this machine.
inline constexpr char HOST[] = "benchmaster";

// A port of loopback that is free now.
unsigned short freePort();

// Makes the root's configuration: a master on loopback, and what more says.
// Takes hold in this process at the next reloadConfiguration.
void writeConfiguration(std::string const& root, unsigned short port, std::string const& more = "");

// Seconds of processor time that a child process has taken so far.
double processorTimeOf(pid_t process);

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
  double threads() const;
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

} // namespace tqbench
