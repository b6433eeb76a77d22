// The way to the service.

#pragma once

#include "ozf/base/OzfHostname.h"
#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

#include <string>

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

struct ConnectionOptions
{
  std::string master; // HOST or HOST:PORT, empty for the configuration's
  long timeout = 30;  // seconds
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

  // A service on another host; nil, after telling the user, when it cannot be
  // had.
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_ptr
  connect(std::string const& host);

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
  std::unique_ptr<Quillon::Tessarine::Ozf::Orb> m_orb;
  bool m_research = false;
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_var m_service;
  mutable std::string m_lost; // why it does not answer any more
};

} // namespace tqdiscoctl
