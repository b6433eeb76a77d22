// Which part this host plays, and the addresses of hosts.

#pragma once

#include "ozf/base/Export.h"

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

class IpAddress;

// The name of the service that every host runs, under which it also publishes
// its object, and the port that it listens on unless something else is said.
inline constexpr char DISCOVERY_SERVICE[] = "DiscoveryService";
inline constexpr unsigned short DISCOVERY_PORT = 27511;

// 0 when this host is the master: its own name, or one of its addresses, is
// that of SERVER. Non-zero otherwise, also when SERVER is not configured. May
// ask the system's resolver and so block for its time-out.
//
// Names are the same when they differ in letter case or in a dot at the end
// only, or when one of them is short (has no dot) and is the first label of
// the other; a short and a long name for which HOST_ADDRESS gives
// different addresses, none of them both, are two hosts all the same.
//
// Failing that, the addresses of SERVER (HOST_ADDRESS first, else the system's
// resolver) are compared with this host's own:
// - With ORB_BIND they are exactly the addresses given there. Several hosts
//   may share one machine then, each on addresses of its own, so neither the
//   machine's interfaces nor 127.0.0.1, which every machine has, tell them
//   apart. 0.0.0.0 and :: stand for all interfaces, as without ORB_BIND.
// - Without it they are those of the machine's interfaces, and every loopback
//   address, since those lead nowhere else.
OZF_EXPORT int IsRunningOnMasterServer();

// Whether this host would be the master by that configuration.
OZF_EXPORT bool isMasterBy(class Configuration const& configuration);

// Whether that is a name, or an address, of this host by the same rules, as far
// as this can be told without asking the resolver: a name that is not this
// host's own is looked up with HOST_ADDRESS alone. Does not block.
OZF_EXPORT bool isOwnHostName(std::string const& host);

// Whether that is an address of this host by the same rules. Does not block.
OZF_EXPORT bool isOwnAddress(IpAddress const& address);

// What to call a host by, to be tried in this order: the addresses of
// HOST_ADDRESS.<name> when there are such, else the name itself, to be resolved by
// the system; never empty. Names are compared without regard to case.
OZF_EXPORT std::vector<std::string> getHostAddresses(std::string const& host);

// The port of a service: the value of ORB_PORT.<service>, else the system's
// services database (TCP), else DISCOVERY_PORT for DISCOVERY_SERVICE, else 0. A value
// that is no port is reported at level 1 and passed over.
OZF_EXPORT unsigned short getServicePort(std::string const& service);

// The port at which that service is called on that host: of DISCOVERY_SERVICE the value of
// HOST_PORT.<host>, else as above. Names are compared as those of HOST_ADDRESS.
OZF_EXPORT unsigned short getServicePort(std::string const& service, std::string const& host);

} // namespace Quillon::Tessarine::Ozf
