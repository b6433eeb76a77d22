// What the file NAME.conf beside a script says of it.

#pragma once

#include "ozf/xml/OzfQuery.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::Scripts
{

// In seconds, where it is a time.
struct Sidecar
{
  static constexpr long DEFAULT_INTERVAL = 300;
  static constexpr long LEAST_INTERVAL = 5; // nobody looks more often
  static constexpr long DEFAULT_TIMEOUT = 30;
  static constexpr long MOST_TIMEOUT = 3600;
  static constexpr long DEFAULT_PRIORITY = 10;

  long interval = DEFAULT_INTERVAL;
  long timeout = DEFAULT_TIMEOUT;
  std::uint32_t priority = DEFAULT_PRIORITY;
  std::optional<long> expiry; // none: a quarter longer than the interval
  std::string user;           // empty: that of this process
  std::vector<OzfQuery::Attribute> facts;
};

// Reads the file. Each mistake is told with file and line; with any, sidecar is of no
// use.
std::vector<std::string> readSidecar(std::string const& path, Sidecar& sidecar);

} // namespace Quillon::Tessarine::Ozf::Scripts
