// The other hosts, as this process reaches them.

#pragma once

#include "discovery/Export.h"
#include "ozf/base/OzfHostname.h"

#include <DiscoveryServiceC.h>

#include <atomic>
#include <string>

namespace Quillon::Tessarine::Ozf
{
class Orb;
}

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The name of the second object of a service. It is one of the same interface that
// gives out, by exact names, the collections on demand of its own process alone.
inline constexpr char OWN_COLLECTIONS[] = "OwnCollections";

// The authority under which that object tells how far its host has come with
// announcing itself: one item, named as the host calls itself, with the facts Role,
// State (waiting, retrying, announced or none), NextTry, LastTry and Reason.
inline constexpr char ANNOUNCEMENT_AUTHORITY[] = "announcement";

// The authority under which it tells of the explorers of its process: an item for each,
// named after its authority, with the facts Kind (push, pull or script), Type, Subject,
// Priority, Origin, State (idle, running, late or left out), LastRun, LastSuccess,
// LastDuration (microseconds), LastMemory (bytes), LastResult, InOrder (yes or no), Runs,
// Failures and LateRuns.
inline constexpr char EXPLORERS_AUTHORITY[] = "explorers";

// What the stores and explorers of other hosts need of the repository: how to
// call other hosts, under which name this one answers, and whether to stop. A
// repository keeps it up to date; its accessors of the same names pass these on.
//
// Any thread may ask. setOrb is for when no other thread does.
class TQ_EXPORT Peers
{
public:
  Peers() = default;
  Peers(Peers const&) = delete;
  Peers& operator=(Peers const&) = delete;

  // There is a framework, with that ORB or with null; or none any more. The ORB
  // is not owned.
  void setOrb(Orb* orb) noexcept;
  void unsetOrb() noexcept;

  // Assert that there is a framework and that it has an ORB.
  Orb* getOrb() const;
  std::string getOrbServiceName() const;

  // Null when there is no framework or no ORB.
  Orb* findOrb() const noexcept { return m_orb; }

  // The configured master's name; left empty, with a log line, when there is
  // none.
  void getMasterServerName(OzfHostname& master) const;

  // A reference to the discovery service of the host, the caller's; nil with a
  // log line when it cannot be had. Blocks as connectToRemoteDS. Asserts as getOrb.
  Remote::DiscoveryService_ptr connect(OzfHostname const& host, char const* serviceName) const;

  // The same of the object under OWN_COLLECTIONS, which older services have not.
  Remote::DiscoveryService_ptr connectToOwn(OzfHostname const& host, char const* serviceName) const;

  // Set when the repository's shutdown begins; whoever waits for another host
  // looks at it before each call.
  void setShuttingDown(bool shuttingDown) noexcept { m_shuttingDown = shuttingDown; }
  bool isShuttingDown() const noexcept { return m_shuttingDown; }

private:
  bool m_hasFramework = false;
  Orb* m_orb = nullptr;
  std::atomic<bool> m_shuttingDown{false};
};

// Those of the process's one repository; never destroyed.
TQ_EXPORT Peers& getPeers();

// A reference to the discovery service that serviceName publishes on the host;
// the caller's; nil with a log line when it cannot be had. Blocks for the
// resolver, and for the ORB's request time-out at worst. At most 20 calls may be
// in progress in the process.
TQ_EXPORT Remote::DiscoveryService_ptr connectToRemoteDS(OzfHostname const& host, Orb* orb,
                                                         char const* serviceName);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
