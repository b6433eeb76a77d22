// How much of the processors goes to what other hosts are asked for on behalf of callers.

#pragma once

#include "discovery/Export.h"

#include <chrono>
#include <mutex>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// A host that is asked may answer as fast as it likes and for a long time, and as many
// at a time as may be asked would take the processors from everybody else. So who has
// taken more than the share of all of them rests until that is made up for. Any thread.
class TQ_EXPORT PullPace
{
public:
  using Clock = std::chrono::steady_clock;

  // share is of one processor's time; what was not taken of it in the time before may be
  // taken at once.
  PullPace(double share, Clock::duration before) : m_share(share), m_before(before) {}

  // Of this process: a quarter of the processors, and of the last two seconds.
  static PullPace& ofProcess();

  // For tests.
  void set(double share, Clock::duration before);
  Clock::duration rested() const; // in all

  // For how long who has taken so much of a processor has to rest.
  Clock::duration spend(Clock::time_point now, std::chrono::nanoseconds spent);

private:
  mutable std::mutex m_mutex;
  double m_share;
  Clock::duration m_before;
  Clock::time_point m_even; // when all that was taken is made up for
  Clock::duration m_rested{};
};

// While it lives its thread keeps the pace of the process.
class TQ_EXPORT PacedThread
{
public:
  PacedThread();
  ~PacedThread();
  PacedThread(PacedThread const&) = delete;
  PacedThread& operator=(PacedThread const&) = delete;

  // How long the calling thread has to rest for what it did since it began or was asked
  // last; not at all when it keeps no pace.
  static PullPace::Clock::duration dueRest();

private:
  PacedThread* const m_before;
  std::chrono::nanoseconds m_spent; // by the thread, when last asked
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
