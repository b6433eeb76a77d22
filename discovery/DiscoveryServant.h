// The servant behind the name "DiscoveryService" as the framework sees it, which
// brings it up and knows nothing of what it does.

#pragma once

#include "ozf/orb/Corba.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// A new one, with one reference for the caller.
PortableServer::ServantBase* newDiscoveryServant();

// The one behind the name OWN_COLLECTIONS.
PortableServer::ServantBase* newOwnCollectionsServant();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
