// The reactor of one Orb, with the thread that runs its event loop.

#pragma once

#include <ace/Reactor.h>

#include <atomic>
#include <memory>
#include <thread>

namespace Quillon::Tessarine::Ozf
{

// Timers run on a monotonic clock; their handlers are told the wall clock's
// time. What a handler throws is logged at level 1 and goes no further.
class OrbReactor
{
public:
  // timerQueue null: a queue of the reactor's own; else not owned.
  explicit OrbReactor(ACE_Timer_Queue* timerQueue);

  // Whether it has what it needs from the system; otherwise it can only be
  // destroyed.
  bool usable() const { return m_reactor->initialized() != 0; }

  // Stops.
  ~OrbReactor();
  OrbReactor(OrbReactor const&) = delete;
  OrbReactor& operator=(OrbReactor const&) = delete;

  ACE_Reactor* get() const noexcept { return m_reactor.get(); }

  void start();

  // Ends the loop and joins the thread. Idempotent.
  void stop();

private:
  void loop();

  std::unique_ptr<ACE_Timer_Queue> m_ownQueue; // outlives the reactor
  std::unique_ptr<ACE_Reactor> m_reactor;
  std::thread m_thread;
  std::atomic<bool> m_stopping{false};
};

} // namespace Quillon::Tessarine::Ozf
