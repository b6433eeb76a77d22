// The repository's two timers. Both are one-shot timers of the framework's
// reactor; each re-arms itself. The reactor and the repository each hold a
// reference, and so does a firing in progress.

#pragma once

#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/sync/OZFRefAceEvent.h"

#include <ace/Time_Value.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <utility>

class ACE_Reactor;

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The timer's own lock orders schedule, cancel and shutdown, so that a timer
// that was shut down is never scheduled again.
class TQ_EXPORT DiscoveryRepository::DiscoveryTimerBase : public OZFRefAceEvent, public OzfLockable
{
public:
  void schedule(ACE_Time_Value const& delay);
  void cancel();
  void shutdown();

  // An exception must not reach the reactor, nor end the timer's life: it is
  // logged, and the timer is scheduled again after its retry delay.
  int handle_timeout(ACE_Time_Value const& now, void const* act) final;

protected:
  ~DiscoveryTimerBase() override;

  // fired is the wall-clock time of the firing.
  virtual void fire(OzfObjTime const& fired) = 0;
  virtual ACE_Time_Value retryDelay() const = 0;
  // Schedules this timer again after its retry delay.
  virtual void retry(std::string const& reason);

private:
  ACE_Reactor* m_reactor = nullptr; // of the last schedule
  bool m_shutDown = false;
};

// Runs the push explorers that are due, every five seconds. Explorers that are
// registered later are not seen until a new timer is made.
//
// One that runs for longer than its budget is left to the thread that it holds up: the
// reactor goes on with another one, and the pass with a timer in the place of this one,
// which begins behind that explorer. Without such an explorer there is one thread.
class TQ_EXPORT DiscoveryRepository::ExplorerPushTimer : public virtual DiscoveryTimerBase
{
public:
  ExplorerPushTimer(DiscoveryRepository& repository, std::shared_ptr<ExplorerSet const> explorers);

  // In the place of one that is held up by the entry before next, in the pass that was
  // begun at that time.
  ExplorerPushTimer(ExplorerPushTimer& held, ExplorerSet::const_iterator next,
                    OzfObjTime const& fired);

  // Moves the next firing to the delay, as triggerPushTimer says; false when it
  // is left where it is.
  bool trigger(ACE_Time_Value const& delay);

  // For tests: the clock of the five minutes, of all push timers.
  using Clock = std::chrono::steady_clock::time_point (*)();
  static void setClock(Clock clock) noexcept { s_clock = clock; }

private:
  void fire(OzfObjTime const& fired) override;
  ACE_Time_Value retryDelay() const override { return m_period; }
  void noteFiring();
  bool visit(ExplorerSet::const_iterator entry, OzfObjTime const& fired);

  static inline std::atomic<Clock> s_clock{&std::chrono::steady_clock::now};

  DiscoveryRepository& m_repository;
  std::shared_ptr<ExplorerSet const> m_explorers;
  ACE_Time_Value m_period;
  std::optional<std::pair<ExplorerSet::const_iterator, OzfObjTime>> m_rest; // to begin with

  // Guarded by the timer's lock.
  bool m_triggered = false;                           // the firing to come was moved
  std::chrono::steady_clock::time_point m_quietUntil; // after one that had been
};

// Announces this host's pull explorers to the master and then starts the push
// timer; tries again every 300 seconds until that worked.
class TQ_EXPORT DiscoveryRepository::ExplorerRegisterTimer : public virtual DiscoveryTimerBase
{
public:
  ExplorerRegisterTimer(DiscoveryRepository& repository,
                        AutoDereference<DiscoveryFramework> const& framework);

private:
  void fire(OzfObjTime const& fired) override;
  ACE_Time_Value retryDelay() const override;
  void retry(std::string const& reason) override;
  bool announce(OzfHostname const& master);

  DiscoveryRepository& m_repository;
  AutoDereference<DiscoveryFramework> m_framework;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
