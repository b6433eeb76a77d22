// What the ORB does with a connection's socket itself, but by a clock that is not set: it
// would wait on when the time of day is set back.

#pragma once

#include "ozf/base/Export.h"

#include <chrono>
#include <cstddef>

namespace Quillon::Tessarine::Ozf
{

// How many bytes were sent or have come, of which there is at least one; 0 when the time
// ran out; negative when the connection has ended.
OZF_EXPORT int sendBefore(std::chrono::steady_clock::time_point deadline, int descriptor,
                          void const* data, std::size_t size) noexcept;
OZF_EXPORT int receiveBefore(std::chrono::steady_clock::time_point deadline, int descriptor,
                             void* data, std::size_t size) noexcept;

} // namespace Quillon::Tessarine::Ozf
