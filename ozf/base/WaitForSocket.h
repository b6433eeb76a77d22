// Waiting for a descriptor until a moment that no setting of the clock moves.

#pragma once

#include "ozf/base/Export.h"

#include <chrono>

namespace Quillon::Tessarine::Ozf
{

// Until one of the events (as poll takes them) may have come, or something else that a
// read or write tells; the last moment there is means for ever. False when the time ran
// out. May return early.
OZF_EXPORT bool waitForSocket(int descriptor, short events,
                              std::chrono::steady_clock::time_point deadline) noexcept;

} // namespace Quillon::Tessarine::Ozf
