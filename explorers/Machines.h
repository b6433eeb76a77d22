// Which machines report under which name. The facts of a host are kept under its name
// alone: where two hosts have the same, each replaces what the other found. So each
// says under a name of its own that it is there.

#pragma once

#include "discovery/ExplorerFacts.h"
#include "explorers/HostCollector.h"

#include "discovery/DiscoveryRepository.h"

#include <map>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// The authority under which the machine of that identifier says that it reports.
std::string machineAuthority(std::string const& machineId);

// What is told there, so that the machine can be found.
Facts<HostFacts> machineFacts();

// A record of that kind.
struct StoredMachine
{
  std::string subject;
  std::string machineId;
  OzfObjTime expires; // changes whenever the machine reports, and by this host's clock alone
};

// Those that are stored at the master; to be called there. No payload is read.
std::vector<StoredMachine> readMachines(DiscoveryRepository& repository);

// Two machines that report under one name at the same time.
struct Clone
{
  std::string subject;
  std::string machines; // their identifiers, with spaces between them
  OzfObjTime since;     // when it was noticed
};

// Remembers what was stored at earlier looks. A machine that takes the place of another
// is told once in the log. They are two hosts when each has reported after the other was
// there; a host that was installed anew never does so with its old identifier. Used by
// one thread.
class MachineWatch
{
public:
  // The clones as of now. Writes a log line of level 1 when an identifier changes, when
  // clones are noticed, and when they are none any more.
  std::vector<Clone> look(std::vector<StoredMachine> const& stored, OzfObjTime const& now);

private:
  struct Machine
  {
    OzfObjTime expires;
    std::uint64_t firstSeen = 0; // the number of the look
    std::uint64_t renewed = 0;   // of the last look that found it renewed
    std::uint64_t stored = 0;    // of the last look that found it
  };

  struct Host
  {
    std::map<std::string, Machine> machines;
    std::string last; // that appeared
    std::string told; // as clones, in the log
    OzfObjTime since;
  };

  void noteStored(Host& host, StoredMachine const& machine);
  std::string clonesOf(Host const& host) const;
  void dropGone(Host& host) const;
  void forget();

  std::uint64_t m_look = 0;
  std::map<std::string, Host> m_hosts;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
