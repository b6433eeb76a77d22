#include "discovery/DiscDBFiles.h"

#include "discovery/DiscDBDiscovery.h"
#include "discovery/DiscoveryLog.h"
#include "ozf/base/SystemError.h"

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

bool isRegular(struct stat const& status, std::string const& path, char const* operation)
{
  if (S_ISREG(status.st_mode))
    return true;
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation, "Not a regular file: " << path);
  return false;
}

bool isMetadataFile(struct stat const& status, std::string const& path, char const* operation)
{
  if (!isRegular(status, path, operation))
    return false;
  if (status.st_size > LARGEST_METADATA)
  {
    logTooLarge(path, status.st_size, operation);
    return false;
  }
  return true;
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
