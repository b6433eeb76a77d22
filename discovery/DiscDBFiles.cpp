#include "discovery/DiscDBFiles.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/SystemError.h"

#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";

constexpr std::size_t BLOCK = 8096;

} // namespace

void logTooLarge(std::string const& path, off_t size, char const* operation)
{
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
          "Too large for metadata: " << path << ", " << size << " bytes");
}

std::string refusalOf(struct stat const& status, uid_t owner)
{
  if (!S_ISREG(status.st_mode))
    return "is not a regular file";
  if (status.st_nlink > 1)
    return "has " + std::to_string(status.st_nlink) + " names, as a file of the database has not";
  if (status.st_uid != owner && status.st_uid != 0)
    return "belongs to user " + std::to_string(status.st_uid) + ", not to root or user " +
           std::to_string(owner);
  return {};
}

std::string refusalOfLink(struct stat const& status, uid_t owner)
{
  if (!S_ISLNK(status.st_mode) || status.st_uid == owner || status.st_uid == 0)
    return {};
  return "is a link of user " + std::to_string(status.st_uid);
}

void logIfLink(std::string const& path, int error, char const* operation)
{
  if (error == ELOOP)
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation, "Refused " << path << ": is a symbolic link");
}

bool isDatabaseFile(struct stat const& status, std::string const& path, char const* operation)
{
  std::string const refusal = refusalOf(status, ::geteuid());
  if (refusal.empty())
    return true;
  if (!S_ISREG(status.st_mode))
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation, "Not a regular file: " << path);
  else
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation, "Refused " << path << ": " << refusal);
  return false;
}

bool isMetadataFile(struct stat const& status, std::string const& path, char const* operation)
{
  if (!isDatabaseFile(status, path, operation))
    return false;
  if (status.st_size > LARGEST_METADATA)
  {
    logTooLarge(path, status.st_size, operation);
    return false;
  }
  return true;
}

bool flushKeepsNames(int directory)
{
  struct statfs status
  {
  };
  if (::fstatfs(directory, &status) != 0)
    return false;
  switch (static_cast<unsigned>(status.f_type))
  {
  case EXT4_SUPER_MAGIC:
  case XFS_SUPER_MAGIC:
  case BTRFS_SUPER_MAGIC:
  case TMPFS_MAGIC: // keeps nothing anyway
    return true;
  default:
    return false;
  }
}

bool readExactly(int fd, std::string& text, std::size_t size)
{
  text.resize(size);
  std::size_t done = 0;
  while (done < size)
  {
    errno = 0;
    ssize_t const count = ::pread(fd, text.data() + done, size - done, static_cast<off_t>(done));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      break;
    done += static_cast<std::size_t>(count);
  }
  ErrnoKeeper const keeper;
  text.resize(done);
  return done == size;
}

int readBlocks(int fd, std::string& text)
{
  text.clear();
  for (;;)
  {
    std::size_t const done = text.size();
    text.resize(done + BLOCK);
    ssize_t const count = ::pread(fd, text.data() + done, BLOCK, static_cast<off_t>(done));
    int const error = count < 0 ? errno : 0;
    text.resize(done + static_cast<std::size_t>(count > 0 ? count : 0));
    if (count == 0)
      return 0;
    if (error != 0 && error != EINTR)
      return error;
    if (text.size() > static_cast<std::size_t>(LARGEST_METADATA))
      return EFBIG;
  }
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
