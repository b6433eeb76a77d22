// The start of the file database: its directory, and what writers left there.

#include "discovery/DiscDB.h"
#include "discovery/DiscDBFiles.h"
#include "discovery/DiscDBLock.h"
#include "discovery/DiscDBRecovery.h"
#include "discovery/DiscoveryLog.h"
#include "ozf/base/FileOwner.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/Wildcard.h"

#include <fcntl.h>
#include <sys/stat.h>
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

// A database that was made under another umask: takes away what others may do
// with it, and what the group may write.
void closeToOthers(std::string const& path, int fd, struct stat& status)
{
  mode_t const excess = status.st_mode & (S_IRWXO | S_IWGRP);
  if (excess == 0 || status.st_uid != ::geteuid())
    return;
  mode_t const mode = status.st_mode & ~(S_IFMT | S_IRWXO | S_IWGRP);
  if (::fchmod(fd, mode) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
            "Unable to close " << path << " to others: " << errorText(errno));
    return;
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP, "Closed the database directory to others: " << path);
  status.st_mode &= ~excess;
}

// Whether the directory may be used: whoever may write to it could give us files
// of their own. One that cannot be examined is left to the opens that fail.
bool isUsable(std::string const& path, bool existed)
{
  UniqueFd const directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status
  {
  };
  if (!directory.valid() || ::fstat(directory.get(), &status) != 0)
    return true;
  struct stat link
  {
  };
  std::string reason;
  if (::lstat(path.c_str(), &link) == 0)
    reason = refusalOfLink(link, ::geteuid());
  if (!reason.empty())
    reason = path + ' ' + reason;
  else
  {
    if (existed)
      closeToOthers(path, directory.get(), status);
    if (isOnlyOurs(path, status, reason))
      return true;
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP, "Refused the database directory: " << reason);
  return false;
}

// Below this nothing can be opened or made.
constexpr char NOWHERE[] = "/dev/null";

} // namespace

void DiscoveryDBCreator::setupDB()
{
  bool const existed = ::access(m_directory.c_str(), F_OK) == 0;
  if (int const error = mkdirpath(m_directory, 0755); error != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
            "Unable to create directory path " << m_directory << ", error " << error);

  if (!isUsable(m_directory, existed))
  {
    m_directory = NOWHERE + m_directory;
    return;
  }

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
    if (finishPending(m_directory, path.str()))
      continue;
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP, "Deleting temporary file " << path.str());
    ::unlink(path.c_str());
  }
  if (errno != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
            "Unable to read directory " << m_directory << ": " << errorText(errno));
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
