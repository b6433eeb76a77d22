// Which masters there are to ask, and which of them a host belongs to.

#pragma once

#include <string>
#include <vector>

namespace tqdiscoctl
{

// As many as one command asks side by side.
inline constexpr std::size_t MOST_MASTERS = 16;

struct MasterList
{
  std::vector<std::string> hosts; // as they were written; none twice, whatever its letter case
  std::string port;               // of all of them; empty where none is named
};

// Splits "host", "host:port", "[::1]:port" and "::1". The port is empty when
// none is given. False when it is none of these.
bool parseMaster(std::string const& text, std::string& host, std::string& port);

// Such places with commas between them; at least one. Returns what is wrong with the text, for
// people; empty when nothing is.
std::string parseMasters(std::string const& text, MasterList& list);

// MASTERS of the configuration, by the same rules; without hosts where the key is absent.
std::string configuredMasters(MasterList& list);

// The one of the masters that the host belongs to: that whose weight for it is largest. The weight
// is the first 16 bytes, as a number whose first byte counts most, of the SHA-256 of the master's
// name, a zero byte and the host's name, both without a dot at the end and with small ASCII
// letters. So each host keeps its master when others come, and when others go. This holds for
// ever: programs that set hosts up compute the same. masters: one at least. Throws
// std::runtime_error where the system has no SHA-256.
std::string const& masterOf(std::string const& host, std::vector<std::string> const& masters);

} // namespace tqdiscoctl
