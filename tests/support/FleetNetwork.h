// Where the hosts of a test fleet live: on loopback addresses, or each in a
// network namespace of its own, with a link to a common switch that can be cut.

#pragma once

#include "tests/support/Process.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace tqtest
{

class FleetNetwork
{
public:
  virtual ~FleetNetwork() = default;

  virtual std::string address(std::size_t host) const = 0;

  // The words to put before a command that shall run on the host.
  virtual std::vector<std::string> wrapper(std::size_t host) const = 0;

  // What makes the host's calls come from its address, for each command that runs on it;
  // without, those to an address of the loopback network come from 127.0.0.1, which is
  // everybody's.
  virtual Process::Environment callingFrom(std::size_t host) const = 0;

  // Cuts the host's link, or joins it again. False where there are no links.
  virtual bool setLink(std::size_t host, bool up) = 0;
};

// For everybody. The addresses are those of this process, so that fleets of
// several tests can run at a time, and to each other the hosts are other hosts.
std::unique_ptr<FleetNetwork> makeLoopbackNetwork();

// For root, and for others where user namespaces are theirs to make; null, with
// the reason, on other machines. To be called before the process has threads.
//
// The namespaces have no names: this process holds them open, and its children
// while they run, so nothing of them stays when it ends, however it ends.
std::unique_ptr<FleetNetwork> makeNamespaceNetwork(std::size_t hosts, std::string& reason);

} // namespace tqtest
