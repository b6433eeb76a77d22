// How long another host may take to hand over an answer, or to take a payload.

#pragma once

#include "discovery/Export.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Each call to a peer has its time-out; this bounds all the calls that fetch
// one answer, or send one payload. A peer that answers just before every
// time-out would hold a thread fifteen times as long. After a minute the calls
// must have taken less than two seconds on average, whatever they carried:
// pages may be as small as eight bytes, and each costs a round trip. That is
// years for an answer of the greatest size, so an answer has a limit in all as
// well.
class TQ_EXPORT DrainLimit
{
public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Clock = TimePoint (*)();

  // Counts from now on, without a limit in all.
  DrainLimit() : m_clock(s_clock), m_start(m_clock()) {}

  // For an answer that may take as long as READ_LIMIT_SECONDS says, and no
  // longer than the thread's ReadDeadline.
  static DrainLimit forAnswer();

  // What passes between the two is not the peer's doing, and is not counted.
  void pause() { m_paused = m_clock(); }
  void resume() { m_start += m_clock() - m_paused; }

  // Rests for as long as the pace of the thread asks (PullPace.h), which is not counted.
  void rest();

  // Whether that many calls have taken too long.
  bool exceeded(std::size_t calls) const
  {
    constexpr std::chrono::seconds GRACE(60);
    constexpr std::chrono::seconds FOR_A_CALL(2);
    TimePoint const now = m_clock();
    return now - m_start > GRACE + FOR_A_CALL * static_cast<std::int64_t>(calls) || now > m_end;
  }

  static TimePoint now() { return s_clock.load()(); }

  // For tests: the clock of those made from now on.
  static void setClock(Clock clock) noexcept { s_clock = clock; }

private:
  static inline std::atomic<Clock> s_clock{&std::chrono::steady_clock::now};

  Clock m_clock;
  TimePoint m_start;
  TimePoint m_paused;
  TimePoint m_end = TimePoint::max();
};

// While it lives, answers that its thread fetches from other hosts may take no
// longer than that, all together; of nested ones the earliest end holds. A call
// that is in progress by then ends by itself or by its time-out.
class TQ_EXPORT ReadDeadline
{
public:
  explicit ReadDeadline(std::chrono::seconds most);
  ~ReadDeadline();
  ReadDeadline(ReadDeadline const&) = delete;
  ReadDeadline& operator=(ReadDeadline const&) = delete;

  // Of the calling thread; the end of time when it has none.
  static DrainLimit::TimePoint ofThread() noexcept;
  static bool passed() { return DrainLimit::now() > ofThread(); }

private:
  DrainLimit::TimePoint m_before;
};

// While it lives, payloads that its thread fetches from other hosts may have no more than so
// many bytes; of nested ones the least holds.
class TQ_EXPORT ReadSize
{
public:
  explicit ReadSize(std::size_t most);
  ~ReadSize();
  ReadSize(ReadSize const&) = delete;
  ReadSize& operator=(ReadSize const&) = delete;

  // Of the calling thread.
  static std::size_t ofThread() noexcept;

private:
  std::size_t m_before;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
