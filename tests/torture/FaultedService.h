// Single system calls of a service are failed while it starts, serves and stops.

#pragma once

#include "tests/torture/FaultedLibrary.h"

namespace tqtorture
{

// Throws std::runtime_error when nothing can be traced.
void faultService(FaultOptions const& options, FaultReport& report);

} // namespace tqtorture
