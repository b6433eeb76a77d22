// What each remote operation takes of who calls it.

#pragma once

#include "discovery/Export.h"
#include "ozf/orb/CallRights.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// As CallNeeds: every operation of the remote interfaces by its name on the wire,
// and what can be asked of any object. Null for others.
TQ_EXPORT CallNeed const* needOf(std::string_view operation);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
