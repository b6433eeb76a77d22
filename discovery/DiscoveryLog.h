// The library's logger.

#pragma once

#include "discovery/Export.h"
#include "ozf/log/Assertion.h"
#include "ozf/log/Logger.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The originator number of the service's log lines.
inline constexpr int DISCOVERY_ORIGINATOR = 400;

// Fetched once from the logger factory. Any thread.
TQ_EXPORT OzfLogger* getOzfLogger();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
