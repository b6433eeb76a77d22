// Single system calls to be failed, found by tracing a run without a fault.

#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace tqtorture
{

// The N-th call of that name in a thread fails with the error, or the process is
// killed at it.
struct Fault
{
  std::string call;
  long number;
  std::string error; // "EIO"; empty for a kill

  std::string text() const; // "fsync 2 EIO"
  // What strace injects.
  std::string injection() const;
};

// How often each call was made, as the trace of strace tells it.
using CallCounts = std::map<std::string, long>;

struct TracedCalls
{
  CallCounts before; // the window begins, in the thread where it was most often
  CallCounts until;  // it ends, likewise
};

// The trace's lines (strace -f -y -o) from the first one with the text begin to the
// last one with the text end; from the start or to the end when a text is empty.
// Throws std::runtime_error when one is not there.
TracedCalls countCalls(std::string const& trace, std::string const& begin, std::string const& end);

// Every fault in the window, in the order of calls: each call once with each
// error and once with a kill. Left out are calls whose failure the C library
// itself does not survive or that cannot fail.
std::vector<Fault> faultsIn(TracedCalls const& calls);

// A choice of about so many, the same for the same seed, that takes every call
// in turn; all when most is 0.
std::vector<Fault> chooseFaults(std::vector<Fault> const& all, std::size_t most, unsigned seed);

} // namespace tqtorture
