// What is told to a program whose memory is to run short, through a file that both map.

#pragma once

#include <atomic>
#include <cstdint>

namespace tqtorture
{

// Of the pieces that are asked for since asked was 0, those from the first to the last
// are refused; none while last is 0. A file of zeros is one.
struct MemoryPlan
{
  std::atomic<std::int64_t> first{0};
  std::atomic<std::int64_t> last{0};
  std::atomic<std::int64_t> asked{0};
  std::atomic<std::int64_t> refused{0};
};

} // namespace tqtorture
