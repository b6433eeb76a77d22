// The start of the file database: its directory, and what writers left there.

#include "discovery/DiscDB.h"
#include "discovery/DiscDBLock.h"
#include "discovery/DiscoveryLog.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/Wildcard.h"

#include <unistd.h>

#include <cerrno>
#include <memory>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";
constexpr char SETUP[] = "DiscoveryDBCreator::setupDB";

struct DirectoryCloser
{
  void operator()(DIR* directory) const { ::closedir(directory); }
};

} // namespace

void DiscoveryDBCreator::setupDB()
{
  if (int const error = mkdirpath(m_directory, 0755); error != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
            "Unable to create directory path " << m_directory << ", error " << error);

  CleanupLock const lock(m_directory.c_str(), CleanupLock::EXCLUSIVE);
  if (!lock.isLocked())
    return;
  std::unique_ptr<DIR, DirectoryCloser> const directory(::opendir(m_directory.c_str()));
  if (!directory)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
            "Unable to open directory " << m_directory << ": " << errorText(errno));
    return;
  }
  for (;;)
  {
    errno = 0;
    dirent const* const entry = ::readdir(directory.get());
    if (entry == nullptr)
      break;
    if (wildcardcmp("*.updating", entry->d_name) != 0)
      continue;
    OzfPathname const path = OzfPathname::makeFilename(m_directory, entry->d_name);
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP, "Deleting temporary file " << path.str());
    ::unlink(path.c_str());
  }
  if (errno != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
            "Unable to read directory " << m_directory << ": " << errorText(errno));
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
