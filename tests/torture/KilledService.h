// A service under four writers that is killed and started again and again.

#pragma once

#include "tests/torture/KilledWriters.h"

namespace tqtorture
{

// longestLife in microseconds, counted from the first write after a start.
// Throws std::runtime_error when the service does not start.
KillResult killService(long kills, unsigned longestLife, std::mt19937& random);

} // namespace tqtorture
