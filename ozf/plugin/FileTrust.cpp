#include "ozf/plugin/FileTrust.h"

#include "ozf/base/FileOwner.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"

#include <cstdlib>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

bool readAt(int fd, void* data, std::size_t size, off_t offset)
{
  return pread(fd, data, size, offset) == static_cast<ssize_t>(size);
}

// The system's loader maps a library before it looks at its length, so that a
// library cut short, a copy that was interrupted say, would end the process.
bool isWhole(int fd, off_t size)
{
  ElfW(Ehdr) header = {};
  if (!readAt(fd, &header, sizeof header, 0) || header.e_phentsize != sizeof(ElfW(Phdr)))
    return false;
  auto const fileSize = static_cast<ElfW(Off)>(size);
  for (unsigned i = 0; i < header.e_phnum; ++i)
  {
    ElfW(Phdr) segment = {};
    if (header.e_phoff > fileSize ||
        !readAt(fd, &segment, sizeof segment,
                static_cast<off_t>(header.e_phoff + i * sizeof segment)) ||
        segment.p_offset > fileSize || segment.p_filesz > fileSize - segment.p_offset)
      return false;
  }
  return true;
}

bool isElf(int fd)
{
  unsigned char magic[SELFMAG] = {};
  return readAt(fd, magic, sizeof magic, 0) &&
         std::string_view(reinterpret_cast<char*>(magic), SELFMAG) == ELFMAG;
}

} // namespace

bool isTrustedLibrary(std::string const& path, std::string& realPath, std::string& reason)
{
  std::unique_ptr<char, decltype(&std::free)> const resolved(realpath(path.c_str(), nullptr),
                                                             std::free);
  if (!resolved)
  {
    reason = path + " cannot be followed: " + errorText(errno);
    return false;
  }
  realPath = resolved.get();

  std::string const folder = OzfPathname(realPath).directory();
  struct stat status = {};
  if (stat(folder.c_str(), &status) != 0)
  {
    reason = folder + " cannot be examined: " + errorText(errno);
    return false;
  }
  if (!isOnlyOurs(folder, status, reason))
    return false;

  if (lstat(realPath.c_str(), &status) != 0)
  {
    reason = realPath + " cannot be examined: " + errorText(errno);
    return false;
  }
  // Before it is opened: a pipe would block.
  if (!S_ISREG(status.st_mode))
  {
    reason = realPath + " is not a regular file";
    return false;
  }
  if (!isOnlyOurs(realPath, status, reason))
    return false;

  UniqueFd const fd(open(realPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!fd.valid())
  {
    reason = realPath + " cannot be opened: " + errorText(errno);
    return false;
  }
  if (!isElf(fd.get()))
  {
    reason = realPath + " is not a library";
    return false;
  }
  if (!isWhole(fd.get(), status.st_size))
  {
    reason = realPath + " is cut short, damaged or made for another machine";
    return false;
  }
  return true;
}

} // namespace Quillon::Tessarine::Ozf
