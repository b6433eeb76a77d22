#include "tests/torture/FaultPlan.h"

#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

namespace tqtorture
{
namespace
{

constexpr std::array ERRORS = {"ENOSPC", "EIO", "EINTR", "EMFILE", "ENOMEM", "EACCES"};

// The C library ends the process when these fail, or does not look, or they are
// the tracer's business. brk answers with the old end and never with an error,
// so that the C library would take one for an end of the heap.
std::set<std::string> const LEFT_OUT = {"access",
                                        "brk",
                                        "arch_prctl",
                                        "clock_gettime",
                                        "clock_nanosleep",
                                        "exit",
                                        "exit_group",
                                        "futex",
                                        "getpid",
                                        "gettid",
                                        "gettimeofday",
                                        "madvise",
                                        "membarrier",
                                        "mprotect",
                                        "munmap",
                                        "restart_syscall",
                                        "rseq",
                                        "rt_sigaction",
                                        "rt_sigprocmask",
                                        "rt_sigreturn",
                                        "sched_yield",
                                        "set_robust_list",
                                        "set_tid_address",
                                        "sigaltstack",
                                        "tgkill",
                                        "uname"};

// These fail for want of memory or of nothing.
std::set<std::string> const MEMORY = {"mmap", "mremap", "clone", "clone3"};

// The name of the call that a line of the trace begins; empty when it begins
// none. thread is its thread.
std::string callIn(std::string const& line, std::string& thread)
{
  std::istringstream words(line);
  std::string rest;
  words >> thread >> rest;
  auto const end = rest.find('(');
  if (end == std::string::npos || end == 0 || !std::isalpha(static_cast<unsigned char>(rest[0])))
    return {};
  return rest.substr(0, end);
}

CallCounts mostOf(std::map<std::string, CallCounts> const& threads)
{
  CallCounts most;
  for (auto const& [thread, counts] : threads)
    for (auto const& [call, count] : counts)
      most[call] = std::max(most[call], count);
  return most;
}

} // namespace

std::string Fault::text() const
{
  return call + " " + std::to_string(number) + " " + (error.empty() ? "KILL" : error);
}

std::string Fault::injection() const
{
  return call + (error.empty() ? std::string(":signal=SIGKILL") : ":error=" + error) +
         ":when=" + std::to_string(number);
}

TracedCalls countCalls(std::string const& trace, std::string const& begin, std::string const& end)
{
  std::vector<std::string> lines;
  std::istringstream in(trace);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  std::size_t first = 0;
  std::size_t last = lines.size();
  if (!begin.empty())
    while (first < lines.size() && lines[first].find(begin) == std::string::npos)
      ++first;
  if (!end.empty())
    while (last > first && lines[last - 1].find(end) == std::string::npos)
      --last;
  if (first >= last)
    throw std::runtime_error("the trace does not show the operation");
  TracedCalls calls;
  std::map<std::string, CallCounts> threads;
  for (std::size_t i = 0; i < last; ++i)
  {
    if (i == first)
      calls.before = mostOf(threads);
    std::string thread;
    std::string const call = callIn(lines[i], thread);
    if (call.empty())
      continue;
    ++threads[thread][call];
  }
  calls.until = mostOf(threads);
  return calls;
}

std::vector<Fault> faultsIn(TracedCalls const& calls)
{
  std::vector<Fault> faults;
  for (auto const& [call, until] : calls.until)
  {
    if (LEFT_OUT.count(call) != 0)
      continue;
    auto const found = calls.before.find(call);
    for (long n = found == calls.before.end() ? 1 : found->second + 1; n <= until; ++n)
    {
      if (MEMORY.count(call) != 0)
        faults.push_back({call, n, "ENOMEM"});
      else
        for (char const* const error : ERRORS)
          faults.push_back({call, n, error});
      faults.push_back({call, n, ""});
    }
  }
  return faults;
}

std::vector<Fault> chooseFaults(std::vector<Fault> const& all, std::size_t most, unsigned seed)
{
  if (most == 0 || all.size() <= most)
    return all;
  // Each part of the list gives one.
  std::mt19937 random(seed);
  std::vector<Fault> chosen;
  for (std::size_t i = 0; i < most; ++i)
  {
    std::size_t const from = i * all.size() / most;
    std::size_t const to = (i + 1) * all.size() / most;
    chosen.push_back(all[from + random() % (to - from)]);
  }
  return chosen;
}

} // namespace tqtorture
