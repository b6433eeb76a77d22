// Protection against a service that calls itself through the network.
//
// Each call that a remote query causes on the same host passes the same guard
// again while the outer one is still in progress, so calls that pile up are
// the mark of a connection that leads back.

#pragma once

#include <atomic>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Counts the calls of one operation in progress in the process.
class LoopCounter
{
private:
  friend class LoopGuard;
  std::atomic<int> m_inProgress{0};
};

// One call in progress, from construction to destruction. Any thread.
class LoopGuard
{
public:
  static constexpr int LIMIT = 20;

  explicit LoopGuard(LoopCounter& counter) noexcept
      : m_counter(counter), m_position(++counter.m_inProgress)
  {
  }
  ~LoopGuard() { --m_counter.m_inProgress; }
  LoopGuard(LoopGuard const&) = delete;
  LoopGuard& operator=(LoopGuard const&) = delete;

  // Whether this call was one too many when it began.
  bool exceeded() const noexcept { return m_position > LIMIT; }

  // Whether there was no other call when this one began.
  bool outermost() const noexcept { return m_position == 1; }

private:
  LoopCounter& m_counter;
  int const m_position;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
