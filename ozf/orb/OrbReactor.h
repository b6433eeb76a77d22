// The reactor of one Orb, with the thread that runs its event loop.

#pragma once

#include <ace/Reactor.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
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

  // Ends the loop and joins the threads that run it or have. Idempotent.
  void stop();

  // Lets a new thread run the loop, beside the one that does and is held up in a
  // handler; that one leaves the loop when the handler returns, or at the next event if
  // it was not held up. False, with a line, when there can be no other thread. Not on the
  // loop's thread.
  bool relieve();

  // The handler that runs now may take that long: so long the loop counts as turning.
  // On the loop's thread.
  void allow(std::chrono::milliseconds time) noexcept;

  // Whether the loop comes round within the time, or is to end. Blocks for that time at
  // most. Any thread but the loop's.
  bool isTurning(std::chrono::milliseconds time);

private:
  using Clock = std::chrono::steady_clock;

  void loop(unsigned turn);
  void noteTurn();
  // One of the threads in the loop, whichever waits for events.
  void wakeLoop();
  bool isAllowed() const noexcept;

  // A thread that was relieved, and whether it has left the loop.
  struct Relieved
  {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> left;
  };

  std::unique_ptr<ACE_Timer_Queue> m_ownQueue; // outlives the reactor
  std::unique_ptr<ACE_Reactor> m_reactor;
  std::mutex m_threadsMutex; // the three below
  std::thread m_thread;
  std::shared_ptr<std::atomic<bool>> m_left; // of that thread
  std::list<Relieved> m_relieved;
  std::atomic<bool> m_stopping{false};
  std::atomic<unsigned> m_turn{0}; // whose it is to run the loop

  std::atomic<Clock::rep> m_allowedUntil{0};
  std::atomic<unsigned> m_asked{0};
  std::atomic<unsigned> m_answered{0};
  std::mutex m_answerMutex;
  std::condition_variable m_answer;
};

} // namespace Quillon::Tessarine::Ozf
