// Single system calls of the library's operations are failed, each in a process
// that does one operation.

#pragma once

#include "tests/torture/FaultReport.h"

#include <set>
#include <string>

namespace tqtorture
{

struct FaultOptions
{
  std::size_t most = 0; // faults of an operation; 0: all
  unsigned seed = 1;
  std::set<std::string> operations; // only these; or none
  std::string fault;                // only this one, as Fault::text; or empty

  bool wants(std::string const& name) const
  {
    return operations.empty() || operations.count(name) != 0;
  }
};

// Throws std::runtime_error when nothing can be traced.
void faultLibrary(FaultOptions const& options, FaultReport& report);

} // namespace tqtorture
