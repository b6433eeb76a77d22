// The way to one service: where it is, and whether it is there.

#pragma once

#include "tools/ExitCodes.h"

#include <DiscoveryServiceC.h>

#include <string>

namespace Quillon::Tessarine::Ozf
{
class Orb;
}

namespace tqdiscoctl
{

// "backup1:27511".
std::string placeOf(std::string const& host);

// The addresses that the host is called by, in its order, with commas between them; empty, with
// the reason, when there are none. Blocks for the resolver's time-out at worst.
std::string addressesOf(std::string const& host, std::string& reason);

// Why a call failed, for people.
std::string reasonOf(CORBA::Exception const& exception);

struct Reached
{
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_var service;
  ExitCode result = EXIT_NOT_REACHABLE; // or EXIT_DONE, or EXIT_REFUSED
  std::string addresses;                // empty: it could not be resolved
  std::string reason;                   // for people, without an end, unless it was reached
};

// Asks the service on the host for an answer of at most so many seconds. Tells nobody; any thread.
Reached reach(Quillon::Tessarine::Ozf::Orb& orb, std::string const& host, long seconds);

// What a master's service is like.
struct Lister
{
  std::string name;    // as it calls itself; empty where it lists nothing
  bool relays = false; // it lists what it does not have, as the service of a client does
};

// Looks at the beginning of what the service lists; at relays only where that is wanted. Any
// thread.
Lister lookAtLister(Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_ptr service,
                    bool relays);

} // namespace tqdiscoctl
