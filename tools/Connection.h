// The way to the service.

#pragma once

#include "ozf/base/OzfHostname.h"
#include "tools/ExitCodes.h"
#include "tools/MasterList.h"
#include "tools/Masters.h"
#include "tools/Research.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

struct ConnectionOptions
{
  static constexpr long WHOLE = 300; // seconds, when the user says nothing
  static constexpr long CALL = 30;

  std::string master;   // HOST or HOST:PORT, or several; empty for the configuration's
  long timeout = 0;     // seconds, 0 when the user says nothing
  bool several = false; // masters are asked

  // What the command, and what one call of it, may take. One of several masters may
  // not use up what the answers of the others need.
  long whole() const noexcept { return timeout != 0 ? timeout : WHOLE; }
  long call() const noexcept
  {
    if (several)
      return std::min(CALL, answer());
    return timeout != 0 ? timeout : CALL;
  }
  // What the list of one of several may take.
  long answer() const noexcept { return std::max(1L, whole() / 2); }
};

// Ends the process, after telling the user, when its time is over: no service is
// trusted to come to an end of its pages. Calls that begin late are given less
// time, so that most of what is slow fails before, and is told in its own words.
class TimeLimit
{
public:
  TimeLimit() = default;
  ~TimeLimit() { stop(); }
  TimeLimit(TimeLimit const&) = delete;
  TimeLimit& operator=(TimeLimit const&) = delete;

  // From now on, also when it runs already. The ORB outlives the run.
  void start(ConnectionOptions const& options, std::string const& place,
             Quillon::Tessarine::Ozf::Orb& orb);
  void stop();

  // Whether what is left is better used for telling what there is: less than a
  // call may take, or than a quarter of the whole.
  bool nearlyOver() const;
  std::chrono::milliseconds left() const;

private:
  using Steady = std::chrono::steady_clock;

  void run(ConnectionOptions const& options, std::string const& place,
           Quillon::Tessarine::Ozf::Orb& orb);

  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_stopped = false;
  Steady::time_point m_end{};
  std::chrono::seconds m_margin{0};
  std::thread m_thread; // none when it does not run
};

// --master and --timeout; they may stand before and behind the command.
void addConnectionOptions(CLI::App& application, ConnectionOptions& options);

// Brings the research API up and connects to the master's service, or to those of
// several masters. One a process; everything read through it is released before it
// ends.
class Connection
{
public:
  // How many masters the command takes: one, or as many as the user or the
  // configuration has.
  enum Asks
  {
    ONE,
    SEVERAL
  };

  explicit Connection(ConnectionOptions options, Asks asks = ONE)
      : m_options(std::move(options)), m_asks(asks)
  {
  }
  ~Connection();
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  // EXIT_DONE, or an exit code after telling the user what is wrong. Blocks
  // for the time-out at worst, and for the resolver's.
  int open();

  // Its two halves: what it takes to ask any service, without asking one; and the
  // master's.
  int prepare();
  int reachMaster();

  // Whether there is more than one, from prepare on. Then they are reached side by side,
  // which is EXIT_DONE when one of them is; what is said of the master below holds for
  // none of them, and commands ask through masters().
  bool several() const noexcept { return m_options.several; }
  Masters& masters() const noexcept { return m_masters; }

  // Tries again, for so many seconds at most, to reach those of several that are missing.
  void reachMissing(long seconds) const { m_masters.reach(*m_research.orb(), seconds); }

  // As the user or the configuration has it, from prepare on.
  std::string const& master() const noexcept { return m_master; }

  // A service on another host; nil, after telling the user, when it cannot be
  // had.
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_ptr
  connect(std::string const& host);

  // The exit code for a connection that could not be had.
  ExitCode whyNotConnected() const noexcept
  {
    return m_refused ? EXIT_REFUSED : EXIT_NOT_REACHABLE;
  }

  // The time of the command: it runs from open on. A command that waits for
  // nobody stops it, and starts it anew for what comes next.
  void stopClock() { m_clock.stop(); }
  void startClock() { m_clock.start(m_options, m_place, *m_research.orb()); }
  TimeLimit const& clock() const noexcept { return m_clock; }

  // Whether the master's service still answers. Blocks for the time-out at
  // worst; once it did not, it is not asked again. Of several: whether any is not
  // missing yet, without asking.
  bool answers() const;

  // The same of the one that listed the record; and whether it is missing by now.
  bool answers(Record const& record) const;
  bool isMissing(Record const& record) const { return several() && m_masters.isMissing(record); }

  // The exit code of a command that came to that one: what has failed because
  // the service went away meanwhile is told so, and counts as not reachable.
  int conclude(int exitCode) const;

  // The master's; not the caller's.
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_ptr service() const
  {
    return m_service.in();
  }

  // "backup1:27511"; of several with commas between them.
  std::string const& place() const noexcept { return m_place; }

private:
  int chooseMasters(MasterList const& list);
  int chooseMaster();
  void learnMaster();

  ConnectionOptions m_options;
  Asks const m_asks;
  mutable Masters m_masters; // none unless there are several
  std::string m_master;      // its name
  std::string m_place;
  Research m_research;
  TimeLimit m_clock;      // stopped before the ORB goes
  bool m_refused = false; // by the service that was to be connected to last
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_var m_service;
  mutable std::string m_lost; // why it does not answer any more
};

} // namespace tqdiscoctl
