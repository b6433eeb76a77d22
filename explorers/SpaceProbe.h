// How full a mounted file system is, without waiting for it.

#pragma once

#include <sys/statvfs.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Bytes and counts. Used and available together are less than the size where
// a part is reserved for the superuser.
struct Space
{
  std::uint64_t size = 0;
  std::uint64_t used = 0;
  std::uint64_t available = 0;
  std::uint64_t inodes = 0; // 0: the file system has no fixed number
  std::uint64_t inodesUsed = 0;

  bool operator==(Space const&) const = default;
};

// Values that the file system itself got wrong come out as 0 used or 0
// available, products beyond 64 bits as the largest number.
Space spaceOf(struct statvfs const& answer);

// Asks the file system mounted at path. Blocks as long as the file system does.
// Absent when it cannot be asked, or when something else is mounted over it:
// device is the number that the mount table gives, and is compared unless its
// major number is 0 (such file systems may report another one).
std::optional<Space> measureSpace(std::string const& path, dev_t device);

using MeasureSpace = std::function<std::optional<Space>(std::string const& path, dev_t device)>;

// Even a local file system can hang: its device may be gone, or reached over a
// network. So each one is asked on a thread of its own, which is waited for at
// most a moment and then left behind. Nothing can end such a thread, and what
// it shares with us lives as long as either side needs it. A path whose thread
// has not come back is not asked again before it has; otherwise every
// exploration of a host with one bad disk would leave one more thread.
// Used by one thread.
class SpaceProbe
{
public:
  using Milliseconds = std::chrono::milliseconds;

  // Waits at most patience for one file system, and at most budget for all
  // those asked between two calls of begin.
  explicit SpaceProbe(MeasureSpace measure = measureSpace,
                      Milliseconds patience = Milliseconds(500),
                      Milliseconds budget = Milliseconds(2000));

  void begin();
  std::optional<Space> measure(std::string const& path, dev_t device);

private:
  struct Job;
  using Clock = std::chrono::steady_clock;

  MeasureSpace m_measure;
  Milliseconds m_patience;
  Milliseconds m_budget;
  Clock::time_point m_end;
  std::map<std::string, std::shared_ptr<Job>> m_stuck;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
