// What a crash of another process would leave behind.

#pragma once

#include "tests/support/TempDir.h"

#include <string>
#include <sys/resource.h>
#include <sys/types.h>

namespace tqtest
{

// Nothing: neither memory nor a file.
constexpr char NO_CORE[] = "00000000\n0";

// Processes that are begun from then on may leave a core, unless they do something about it.
inline void allowCores()
{
  rlimit limit{};
  EXPECT_EQ(getrlimit(RLIMIT_CORE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  EXPECT_EQ(setrlimit(RLIMIT_CORE, &limit), 0);
}

// Which memory a core of that process holds, and how large it may be.
inline std::string coreOf(pid_t process)
{
  rlimit now{};
  EXPECT_EQ(prlimit(process, RLIMIT_CORE, nullptr, &now), 0);
  return readText("/proc/" + std::to_string(process) + "/coredump_filter") +
         std::to_string(now.rlim_cur);
}

} // namespace tqtest
