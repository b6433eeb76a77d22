// The packages that are installed on a host.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Empty and absent members are not known. Any bytes, up to 256 of each.
struct Package
{
  std::string name;
  std::string manager; // "dpkg" or "rpm"
  std::string version;
  std::string architecture;
  std::optional<std::uint64_t> size; // bytes, as its maker estimated it
  std::string state;                 // of one that is there but not in order
};

struct Software
{
  std::string managers; // whose databases there are, with spaces between them
  bool complete = true; // no package was left out
  std::vector<Package> packages;
};

// The lines that rpm prints in the form of RPM_FORMAT; absent when they cannot be had.
std::optional<std::string> queryRpm();
using QueryRpm = std::function<std::optional<std::string>()>;

// Name, version with epoch and release, architecture and size, with tabs between them.
inline constexpr char const* RPM_FORMAT =
    "%{NAME}\\t%|EPOCH?{%{EPOCH}:}|%{VERSION}-%{RELEASE}\\t%{ARCH}\\t%{LONGSIZE}\\n";

// What is there according to root/var/lib/dpkg/status, in its order, and then, where
// root has a database of rpm, according to that program: no other knows all forms of its
// database. A database without end, or a damaged one, gives the packages that are whole,
// up to 50,000 of them, and costs a log line of level 1.
Software collectSoftware(std::string const& root, QueryRpm const& rpm = queryRpm);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
