// Single system calls of the library's operations are failed, each in a process
// that does one operation.

#pragma once

#include "tests/torture/FaultReport.h"

namespace tqtorture
{

struct FaultOptions
{
  std::size_t most = 0; // faults of an operation; 0: all
  unsigned seed = 1;
  std::string operation; // only this one; or empty
  std::string fault;     // only this one, as Fault::text; or empty
};

// Throws std::runtime_error when nothing can be traced.
void faultLibrary(FaultOptions const& options, FaultReport& report);

} // namespace tqtorture
