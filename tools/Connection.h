// The way to the service.

#pragma once

#include "ozf/base/OzfHostname.h"
#include "tools/ExitCodes.h"
#include "tools/Research.h"

#include <DiscoveryServiceC.h>

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

  std::string master; // HOST or HOST:PORT, empty for the configuration's
  long timeout = 0;   // seconds, 0 when the user says nothing

  // What the command, and what one call of it, may take.
  long whole() const noexcept { return timeout != 0 ? timeout : WHOLE; }
  long call() const noexcept { return timeout != 0 ? timeout : CALL; }
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

// Splits "host", "host:port", "[::1]:port" and "::1". The port is empty when
// none is given. False when it is none of these.
bool parseMaster(std::string const& text, std::string& host, std::string& port);

// Why a call failed, for people.
std::string reasonOf(CORBA::Exception const& exception);

// Brings the research API up and connects to the master's service. One a
// process; everything read through it is released before it ends.
class Connection
{
public:
  explicit Connection(ConnectionOptions const& options) : m_options(options) {}
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
  // worst; once it did not, it is not asked again.
  bool answers() const;

  // The exit code of a command that came to that one: what has failed because
  // the service went away meanwhile is told so, and counts as not reachable.
  int conclude(int exitCode) const;

  // The master's; not the caller's.
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_ptr service() const
  {
    return m_service.in();
  }

  // "backup1:27511".
  std::string const& place() const noexcept { return m_place; }

private:
  int chooseMaster();
  void learnMaster();
  bool findStored(char const* subject, char const* authority,
                  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::Discovery& stored,
                  std::string& name) const;
  bool onlyRelays(Quillon::Tessarine::Ozf::DiscoverySvc::Remote::Discovery const& stored) const;

  ConnectionOptions const& m_options;
  std::string m_master; // its name
  std::string m_place;
  Research m_research;
  TimeLimit m_clock;      // stopped before the ORB goes
  bool m_refused = false; // by the service that was to be connected to last
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_var m_service;
  mutable std::string m_lost; // why it does not answer any more
};

} // namespace tqdiscoctl
