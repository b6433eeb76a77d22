#include "explorers/SpaceProbe.h"

#include "discovery/DiscoveryLog.h"
#include "explorers/FactFiles.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{
constexpr char SOURCE[] = "SpaceProbe";
}

struct SpaceProbe::Job
{
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
  std::optional<Space> space;

  void finish(std::optional<Space> const& result)
  {
    std::lock_guard const guard(mutex);
    done = true;
    space = result;
    changed.notify_all();
  }

  bool waitUntil(Clock::time_point end)
  {
    std::unique_lock guard(mutex);
    return changed.wait_until(guard, end, [this] { return done; });
  }
};

Space spaceOf(struct statvfs const& answer)
{
  std::uint64_t const unit = answer.f_frsize != 0 ? answer.f_frsize : answer.f_bsize;
  std::uint64_t const blocks = answer.f_blocks;
  std::uint64_t const files = answer.f_files;
  Space space;
  space.size = saturatingProduct(blocks, unit);
  space.used = answer.f_bfree <= blocks ? saturatingProduct(blocks - answer.f_bfree, unit) : 0;
  space.available = answer.f_bavail <= blocks ? saturatingProduct(answer.f_bavail, unit) : 0;
  space.inodes = files;
  space.inodesUsed = answer.f_ffree <= files ? files - answer.f_ffree : 0;
  return space;
}

std::optional<Space> measureSpace(std::string const& path, dev_t device)
{
  // Naming the mount point twice, to compare and to measure, could meet two
  // different file systems; a path handle names it once and opens nothing.
  UniqueFd const handle(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat found = {};
  struct statvfs answer = {};
  if (!handle.valid() || fstat(handle.get(), &found) != 0 || fstatvfs(handle.get(), &answer) != 0)
  {
    OZF_LOG(getOzfLogger(), 4, SOURCE, "measureSpace",
            "Cannot measure " << path << ": " << errorText(errno));
    return std::nullopt;
  }
  if (major(device) != 0 && found.st_dev != device)
    return std::nullopt;
  return spaceOf(answer);
}

SpaceProbe::SpaceProbe(MeasureSpace measure, Milliseconds patience, Milliseconds budget)
    : m_measure(std::move(measure)),
      m_patience(patience),
      m_budget(budget),
      m_end(Clock::now() + budget)
{
}

void SpaceProbe::begin()
{
  m_end = Clock::now() + m_budget;
  std::erase_if(m_stuck, [](auto const& entry) { return entry.second->waitUntil(Clock::now()); });
}

std::optional<Space> SpaceProbe::measure(std::string const& path, dev_t device)
{
  constexpr char const* OPERATION = "SpaceProbe::measure";
  auto const now = Clock::now();
  if (now >= m_end || m_stuck.contains(path))
    return std::nullopt;

  auto const job = std::make_shared<Job>();
  try
  {
    std::thread(
        [job, measure = m_measure, path, device]
        {
          try
          {
            job->finish(measure(path, device));
          }
          catch (std::exception const& exception)
          {
            OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
                    "Cannot measure " << path << ": " << exception.what());
            job->finish(std::nullopt);
          }
        })
        .detach();
  }
  catch (std::system_error const& error)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Cannot start a thread to measure " << path << ": " << error.what());
    return std::nullopt;
  }

  if (job->waitUntil(std::min(now + m_patience, m_end)))
    return job->space;
  m_stuck.emplace(path, job);
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "The file system at " << path << " does not answer, its size is left out");
  return std::nullopt;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
