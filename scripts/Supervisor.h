// The process between this one and a script.
//
// A script may start what it likes, and some of it leaves the script's process group
// or lives on when the script has ended. Only a parent can find all of that and end
// it, and this process, with its threads and children of others, cannot be such a
// parent for one script. So each run has a supervisor of its own: a copy of this
// process that takes in whatever the script leaves behind, and ends when nothing of
// it is left.

#pragma once

#include <cstddef>
#include <sys/types.h>

namespace Quillon::Tessarine::Ozf::Scripts
{

// What the supervisor needs, ready before it is made: it must not allocate. Times are
// in milliseconds. Nothing is owned.
struct SupervisorPlan
{
  pid_t parent;
  int input; // descriptors, which are closed in the supervisor when it has used them
  int output;
  int errors;
  int report;
  char const* path;
  dev_t device; // of the file that was examined
  ino_t inode;
  char const* directory;
  char const* const* arguments;
  char const* const* environment;
  bool changesUser;
  uid_t user;
  gid_t group;
  gid_t const* groups;
  std::size_t groupCount;
  long timeout;
  long grace; // from TERM to KILL
};

// Each is written to plan.report in one piece.
struct SupervisorReport
{
  enum What : int
  {
    Ended,    // value: the status as wait has it
    TimedOut, // likewise
    Replaced, // another file is at the path
    NotExecuted,
    NoDirectory,
    NoUser,
    NoProcess // value of these four: the error number
  };
  What what;
  int value;
  long memory; // KiB, the most that the script had
};

// SIGTERM to the supervisor has the script end, with the grace; this has it ended
// at once.
inline constexpr int END_AT_ONCE = 2; // SIGINT

// In a process that was just forked, with all signals blocked. It uses only what may
// be used there when the parent has threads.
[[noreturn]] void superviseScript(SupervisorPlan const& plan) noexcept;

} // namespace Quillon::Tessarine::Ozf::Scripts
