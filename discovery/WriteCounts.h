// How writes into the database of this host went, and how long they took.

#pragma once

#include "discovery/Export.h"

#include <DiscoveryTypesC.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Counts since the process began. A write counts once it has come to its end: when it
// was persisted or that failed, or when it could not even be opened, or its payload not
// be taken. Any thread; nothing waits, and a look may fall between two counts of one
// write.
class TQ_EXPORT WriteCounts
{
public:
  using Duration = std::chrono::microseconds;

  static constexpr std::array<Duration, 5> BOUNDS = {
      std::chrono::milliseconds(1), std::chrono::milliseconds(10), std::chrono::milliseconds(100),
      std::chrono::seconds(1), std::chrono::seconds(10)};

  struct Seen
  {
    std::uint64_t stored = 0;
    std::uint64_t outranked = 0; // data of higher priority was there
    std::uint64_t failed = 0;
    // Of those that got as far as to be persisted, whatever came of it.
    Duration time{};                                   // of all together
    std::uint64_t timed = 0;                           // how many these are
    std::array<std::uint64_t, BOUNDS.size()> within{}; // how many took no longer than that bound
  };

  // One that ended before it was to be persisted.
  void add(DiscoveryStatus result) noexcept;

  // One that was to be persisted, and how long that took.
  void add(DiscoveryStatus result, std::chrono::nanoseconds took) noexcept;

  Seen seen() const noexcept;

private:
  using Count = std::atomic<std::uint64_t>;

  Count m_stored{0};
  Count m_outranked{0};
  Count m_failed{0};
  Count m_nanoseconds{0};
  std::array<Count, BOUNDS.size() + 1> m_took{}; // up to each bound, and longer than all
};

// The process's one.
TQ_EXPORT WriteCounts& getWriteCounts() noexcept;

// Counts a write to be persisted when it ends, with what result then is; as failed where
// an exception ends it.
class TQ_EXPORT TimedWrite
{
public:
  explicit TimedWrite(DiscoveryStatus const& result) noexcept : m_result(result) {}
  ~TimedWrite();
  TimedWrite(TimedWrite const&) = delete;
  TimedWrite& operator=(TimedWrite const&) = delete;

private:
  using Clock = std::chrono::steady_clock;

  DiscoveryStatus const& m_result;
  Clock::time_point const m_begin = Clock::now();
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
