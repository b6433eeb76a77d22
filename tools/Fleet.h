// What the list of all discoveries tells of the fleet, without reading any of them.

#pragma once

#include "tools/Records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace tqdiscoctl
{

class Connection;

// By name; with the time of the latest discovery about the host, zero when all are on
// demand.
using SilentHosts = std::map<std::string, Quillon::Tessarine::Ozf::OzfObjTime>;

// Ages up to which things are counted together, in seconds; the last has what is older.
inline constexpr std::array<std::int64_t, 7> AGE_BOUNDS = {60,    300,   900,   3600,
                                                           21600, 86400, 604800};
using AgeCounts = std::array<std::size_t, AGE_BOUNDS.size() + 1>;

// Fed with the records of one listing, in any order. What somebody put in may be about
// anything: a host is what its explorers have told of.
class Fleet
{
public:
  using Time = Quillon::Tessarine::Ozf::OzfObjTime;
  using Authority = std::pair<std::string, Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType>;

  // At most so many authorities are counted by name; those that come later are under the
  // empty name.
  static constexpr std::size_t MOST_AUTHORITIES = 1000;
  static constexpr std::int64_t SOON = 3600; // seconds

  // Ages, and what is about to expire, are as of now.
  explicit Fleet(Time const& now) : m_now(now) {}

  void add(Record const& record);

  // The host's service tells of itself, whatever is listed.
  void addTelling(std::string const& host);

  Time const& now() const noexcept { return m_now; }
  std::size_t discoveries() const noexcept { return m_discoveries; }
  std::size_t expiring() const noexcept { return m_expiring; } // within SOON
  std::size_t hosts() const noexcept { return m_reporting; }

  // Of discoveries that are stored, by when they were made.
  AgeCounts const& ages() const noexcept { return m_ages; }

  // Of hosts, by the latest discovery about each.
  AgeCounts hostAges() const;

  // By authority and type. What each machine, or each request that explorers run, has an
  // authority of its own for is counted under what these have in common.
  std::map<Authority, std::size_t> const& authorities() const noexcept { return m_authorities; }

  // The latest discovery of the host that has told nothing for longest; zero when there
  // is none.
  Time oldestReport() const;

  // Hosts whose explorers have told something while their service tells nothing of
  // itself any more. Where no service tells of itself, none is missed.
  SilentHosts silent() const;

  // More hosts than are kept were listed: others may be silent, too.
  bool full() const noexcept { return m_full; }

private:
  struct Host
  {
    Time latest;
    bool reports = false;
    bool tells = false;
  };

  Host* hostOf(std::string const& name);
  void countAuthority(Record const& record);

  Time const m_now;
  std::unordered_map<std::string, Host> m_hosts;
  std::size_t m_bytes = 0; // that they take
  std::map<Authority, std::size_t> m_authorities;
  AgeCounts m_ages{};
  std::size_t m_discoveries = 0;
  std::size_t m_reporting = 0;
  std::size_t m_telling = 0;
  std::size_t m_expiring = 0;
  bool m_full = false;
};

// Takes the hosts away of which nothing is listed but explorers whose announcements
// were removed: the service goes on with those until it is started anew. Asks the
// service where there may be any, or those of all masters that the connection is to.
void dropForgotten(Connection const& connection, SilentHosts& silent);

// The same of one of several masters.
void dropForgotten(std::string const& master, SilentHosts& silent);

} // namespace tqdiscoctl
