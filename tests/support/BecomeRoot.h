// What only root may do, for those who are not.

#pragma once

#include "tests/support/TempDir.h"

#include <sched.h>
#include <string>
#include <unistd.h>

namespace tqtest
{

// An ordinary user becomes root of a user namespace, where the machine allows
// that. Only for a process without threads.
inline bool becomeRoot()
{
  uid_t const user = geteuid();
  gid_t const group = getegid();
  if (user == 0)
    return true;
  if (unshare(CLONE_NEWUSER) != 0)
    return false;
  writeText("/proc/self/setgroups", "deny");
  writeText("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
  writeText("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  return geteuid() == 0;
}

} // namespace tqtest
