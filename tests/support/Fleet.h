// A fleet: a master, a media server and three clients, each a tqdisco process
// with a name, an address, a product root and a configuration of its own. They
// find what the default explorers find, and what the plug-in of the fixtures
// for fleets adds.
//
// The names begin with numbers for which the delays before a host announces
// itself, and before it pushes when told to, are at most two seconds.

#pragma once

#include "tests/support/Certificates.h"
#include "tests/support/FleetNetwork.h"
#include "tests/support/LiveService.h"
#include "tests/support/MovedClock.h"

#include <array>
#include <optional>

namespace tqtest
{

class FleetHost
{
public:
  using Words = std::vector<std::string>;

  FleetHost(FleetNetwork& network, std::size_t number, std::string name);

  // Writes the configuration; entries are lines beside those of the host. With an
  // authority the host takes and makes calls with TLS alone, by a certificate for its
  // name.
  void configure(std::string const& entries, CertificateAuthority* authority);

  // Further lines, behind those.
  void addEntries(std::string const& entries);

  // Starts the service; the log begins anew.
  void launch(Process::Environment const& more = {});
  bool start(Process::Environment const& more = {})
  {
    launch(more);
    return awaitLog("main: Started, version");
  }
  // The exit code, or -1 when it does not end in time.
  int stop();
  void kill();

  bool running() { return m_process && m_process->running(); }
  Process& process() { return *m_process; }
  std::string log() const { return m_process ? m_process->errors() : std::string(); }
  bool awaitLog(std::string const& text, std::chrono::seconds limit = std::chrono::seconds(90))
  {
    return m_process->awaitError(text, limit);
  }

  // The operator's command as it runs on this host. As somebody, it shows the
  // certificate that was issued to him, and else the host's.
  Outcome tqdiscoctl(Words const& arguments) const { return tqdiscoctlAs("", arguments); }
  Outcome tqdiscoctlAs(std::string const& somebody, Words const& arguments) const;

  // A certificate for that name, to be shown by tqdiscoctlAs.
  void issue(std::string const& somebody, std::string const& name, CertificateAuthority& authority);

  // Lets the monotonic clock of the service jump ahead: for waits of minutes.
  void jumpAhead(std::chrono::seconds time) { m_clock.jumpAhead(time); }

  // Sets its wall clock to so far from the true time.
  void setClock(std::chrono::seconds from) { m_clock.set(from); }

  // Programs with these variables go by the same clocks.
  Process::Environment clocks() const { return m_clock.environment(); }

  bool setLink(bool up) { return m_network.setLink(m_number, up); }

  std::string const& name() const { return m_name; }
  std::string address() const { return m_network.address(m_number); }
  std::string const& root() const { return m_root.path(); }
  std::string database() const { return m_root / "db/discovery"; }
  std::size_t temporaryFiles() const;

  // What the fixture notes and is told: see there.
  std::string note(std::string const& file) const { return m_root / ("notes/" + file); }
  std::vector<std::string> notes(std::string const& file) const;

private:
  FleetNetwork& m_network;
  std::size_t const m_number;
  std::string const m_name;
  TempDir m_root;
  MovedClock m_clock{m_root / "clock"};
  std::unique_ptr<Process> m_process;
};

class Fleet
{
public:
  static constexpr std::size_t HOSTS = 5;
  // In the order of the registry on the master, which names exactly one host
  // for the last of those that are not the master itself.
  static constexpr char const* MASTER = "4master";
  static constexpr char const* MEDIA = "23media";
  static constexpr char const* MAIL = "125mail"; // the first
  static constexpr char const* WEB = "95web";
  static constexpr char const* LAST = "96last";

  enum Trust
  {
    EVERYBODY,
    PROVEN // those with a certificate of the fleet's authority
  };
  // Of PROVEN fleets.
  CertificateAuthority& authority() { return *m_authority; }

  explicit Fleet(std::unique_ptr<FleetNetwork> network, Trust trust = EVERYBODY);

  FleetHost& operator[](std::string const& name);
  FleetHost& master() { return (*this)[MASTER]; }

  // Starts the master, then the others.
  bool start();

  // Stops whatever runs, the master last; the hosts whose exit code is not 0,
  // or that leave temporary files.
  std::vector<std::string> stop();

  // Whether every host's own report, and the announcement of its volumes, have
  // reached the master.
  bool complete();

  // The logs, for a failed test.
  std::string logs();

private:
  std::unique_ptr<FleetNetwork> m_network;
  std::optional<CertificateAuthority> m_authority;
  std::array<std::unique_ptr<FleetHost>, HOSTS> m_hosts;
};

} // namespace tqtest
