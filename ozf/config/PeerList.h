// Lists of peers, as the configuration has them.
//
// The entries of a line are separated by commas or white space, and lines add to
// each other. An entry is one of
//
//   any             everybody
//   none            nobody
//   local           this host
//   master          the host of SERVER
//   10.0.0.0/8      a network
//   192.0.2.7       an address
//   *.example.net   a pattern of the names of certificates

#pragma once

#include "ozf/base/Export.h"
#include "ozf/config/IpAddress.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// What is known of who calls. It refers to what it was made from.
class OZF_EXPORT Caller
{
public:
  // The numeric addresses of the two ends of its connection, and the names of its
  // certificate, empty where it showed none.
  Caller(std::string const& address, std::string const& reached,
         std::vector<std::string> const& names);

  std::optional<IpAddress> const& address() const noexcept { return m_address; }
  std::vector<std::string> const& names() const noexcept { return m_names; }

  // Whether it calls from this host: from 127.0.0.1 or ::1, from the very address
  // that it calls, or from one that HostRole.h takes for this host's own.
  bool isThisHost() const;

  // Whether its certificate is for that host. One host is named, whose name may
  // end with a dot; a "*." at the beginning of the certificate's name stands for
  // one label.
  bool isProvenToBe(std::string const& host) const;

  // Whether its certificate is for that host or its address is the host's. May
  // block and throw as isAddressOf.
  bool isHost(std::string const& host) const;

  // Whether it is the host of SERVER. May block and throw as isAddressOf.
  bool isMaster() const;

private:
  std::optional<IpAddress> m_address;
  std::optional<IpAddress> m_reached;
  std::vector<std::string> const& m_names;
};

// Immutable; any thread.
class OZF_EXPORT PeerList
{
public:
  // Everybody.
  PeerList();

  // The values of a key. Nothing, with what is wrong in mistake, when one entry is
  // none of the above.
  static std::optional<PeerList> parse(std::vector<std::string> const& lines, std::string& mistake);

  // What is wrong with one value, for messages: "\"10.0.0.1/8\", an address with
  // bits behind the first 8 of a network"; empty when nothing is.
  static std::string mistakeIn(std::string const& line);

  // May block and throw, as isAddressOf, where it has the master.
  bool holds(Caller const& caller) const;

  // Whether it does by another entry than the master, whose addresses may change.
  bool holdsForGood(Caller const& caller) const;

  // Its entries, for log lines; long ones are cut.
  std::string const& text() const noexcept { return m_text; }

private:
  bool add(std::string const& entry, std::string& mistake);
  bool addNetwork(std::string const& entry, std::string& mistake);

  bool m_any = false;
  bool m_local = false;
  bool m_master = false;
  std::vector<std::pair<IpAddress, int>> m_networks; // and the bits that count
  std::vector<std::string> m_patterns;
  std::string m_text;
};

// What the entries of a list may be, for messages.
inline constexpr char PEER_LIST_ENTRIES[] =
    "any, none, local, master, networks as 10.0.0.0/8, addresses, and names of certificates as "
    "*.example.net";

} // namespace Quillon::Tessarine::Ozf
