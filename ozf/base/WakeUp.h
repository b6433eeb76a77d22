// Waking a thread that waits for an eventfd.

#pragma once

#include "ozf/base/Export.h"

namespace Quillon::Tessarine::Ozf
{

// Adds one to the counter of the eventfd, so that it can be read. Keeps errno, and
// may be called by a signal's handler. A write that fails is repeated. Does nothing when the
// counter is at its end, for then it can be read already.
OZF_EXPORT void wakeUp(int eventFd) noexcept;

} // namespace Quillon::Tessarine::Ozf
