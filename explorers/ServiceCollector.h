// What the service tells of itself.

#pragma once

#include "discovery/DiscoveryRepository.h"
#include "discovery/ExplorerRuns.h"
#include "discovery/WriteCounts.h"
#include "explorers/Machines.h"
#include "ozf/base/OzfObjTime.h"
#include "ozf/config/Limits.h"
#include "ozf/orb/ConnectionCounts.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

struct ExplorerState
{
  std::string authority;
  AuthorityType type{};
  ExplorerRecord::Kind kind = ExplorerRecord::PUSH;
  ExplorerPriority priority = 0;
  ExplorerWrapper::Run lastRun;
  std::string origin = {};
  std::optional<ExplorerRecord::Now> runs = {}; // where they are told of
};

// What the service serves, and how its writes went.
struct ServiceLoad
{
  ConnectionCounts connections;
  std::uint64_t iterators = 0; // that callers have open
  std::uint64_t writers = 0;
  WriteCounts::Seen writes;
};

struct ServiceState
{
  bool master = false;
  std::string version;
  OzfObjTime start;
  std::optional<std::uint64_t> stored; // discoveries in this host's database
  std::uint64_t announced = 0;         // pull explorers of other hosts
  OzfObjTime certificateEnd;           // zero without TLS; of the first that it rests on
  std::string endingAuthority;         // whose that is; empty for the host's own
  std::string awaitsRestart;           // keys of the configuration, "ORB_BIND, TLS"
  std::string crashedBy;               // the explorers that ended the process before this one
  std::optional<ServiceLoad> load;     // none where nothing is served
  std::vector<ExplorerState> explorers;
  std::vector<MetLimit> limits; // those that peers met since the start
  std::vector<Clone> clones;    // on the master; collectService leaves them to its caller
};

// Looks at the registry and counts the metadata files of the directory, none
// of which it opens. The database is not counted when the directory cannot be
// read. Asserts that the repository has a framework.
ServiceState collectService(DiscoveryRepository const& repository, std::string const& directory,
                            OzfObjTime const& start);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
