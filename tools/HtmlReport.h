// How the fleet fares, as one page that needs nothing besides itself.

#pragma once

#include "tools/Fleet.h"
#include "tools/ServiceStates.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tqdiscoctl
{

struct FullFileSystem
{
  std::string host;
  std::string mountPoint;
  std::string type;
  unsigned use = 0; // in hundredths, of the space or of the inodes, whichever is more
  bool inodes = false;
  std::uint64_t size = 0; // bytes
  std::uint64_t available = 0;
};

// Whether people should look: it is a local one that can be written, and nearly full.
// Fills what comes of the item.
bool isFull(Item const& item, FullFileSystem& found);

struct ReportData
{
  std::string master; // "backup1:27511"
  Fleet const& fleet;
  SilentHosts const& silent;
  std::vector<ServiceState> const& services;
  std::vector<FullFileSystem> const& full;
  std::size_t unread = 0; // discoveries that could not be read
  bool listComplete = true;
};

// At most this many bytes, whatever the fleet: each list has a number of rows, and all
// of them together this room. What does not fit is counted.
inline constexpr std::size_t LARGEST_REPORT = 5'000'000;

// Whatever names hold, they are text in it.
std::string htmlReport(ReportData const& data);

} // namespace tqdiscoctl
