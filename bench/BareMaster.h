// The floor of what is written to another process: a discovery service that
// takes every write and keeps nothing.

#pragma once

#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

namespace tqbench
{

// The caller owns the servant. It takes writes by putCollection and answers
// everything else with NO_IMPLEMENT.
PortableServer::ServantBase* makeBareMaster(Quillon::Tessarine::Ozf::Orb& orb);

} // namespace tqbench
