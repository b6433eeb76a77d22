// How many connections peers have opened to this process.

#pragma once

#include "ozf/base/Export.h"

#include <cstdint>

namespace Quillon::Tessarine::Ozf
{

struct ConnectionCounts
{
  std::uint64_t open = 0;
  // Since the process began:
  std::uint64_t taken = 0;   // were let in
  std::uint64_t refused = 0; // were not, for want of room or of a proof of who it is
};

// Any thread; waits for no peer.
OZF_EXPORT ConnectionCounts connectionCounts() noexcept;

} // namespace Quillon::Tessarine::Ozf
