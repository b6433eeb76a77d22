#include "bench/BareFiles.h"

#include "bench/Bench.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>

namespace tqbench
{
namespace
{

constexpr int FLAGS = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

constexpr char NOTE[] = "user.tessarine.pending";

int lock(int fd, int command, short type)
{
  struct flock region = {};
  region.l_type = type;
  region.l_whence = SEEK_SET;
  region.l_len = 1;
  return ::fcntl(fd, command, &region);
}

void unlockAndClose(int fd)
{
  struct flock region = {};
  region.l_type = F_UNLCK;
  region.l_whence = SEEK_SET;
  ::fcntl(fd, F_SETLK, &region);
  ::close(fd);
}

// Whether the open file is still the one of that name.
void compareWithName(int fd, std::string const& path)
{
  struct stat open = {};
  struct stat named = {};
  require(::fstat(fd, &open) == 0 && ::stat(path.c_str(), &named) == 0 &&
              open.st_ino == named.st_ino,
          "another file has taken the name");
}

// Whether the stored discovery may be replaced, which nobody decides here.
void lookAt(std::string const& path)
{
  int const fd = ::open(path.c_str(), O_RDONLY | FLAGS);
  if (fd < 0)
    return;
  require(lock(fd, F_SETLKW, F_RDLCK) == 0, "no read lock");
  compareWithName(fd, path);
  struct stat status = {};
  require(::fstat(fd, &status) == 0, "no status");
  char buffer[8096];
  for (off_t at = 0;;)
  {
    ssize_t const count = ::pread(fd, buffer, sizeof buffer, at);
    require(count >= 0, "cannot read");
    if (count == 0)
      break;
    at += count;
  }
  unlockAndClose(fd);
}

} // namespace

void barePersist(std::string const& directory, std::string const& base, std::string const& metadata,
                 std::string const& payload)
{
  std::string const path = directory + '/' + base + ".xml";
  std::string const dataPath = directory + '/' + base + ".dat";
  std::string const updateLock = directory + "/Update.lock";
  std::string const temporary = directory + "/0.updating";

  // Opened for update, and the payload written.
  lookAt(path);
  int const guard = ::open(updateLock.c_str(), O_RDWR | O_CREAT | FLAGS, 0644);
  require(guard >= 0 && lock(guard, F_SETLKW, F_RDLCK) == 0, "no clean-up lock");
  compareWithName(guard, updateLock);
  int const data = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  require(data >= 0, "no temporary file");
  require(::write(data, payload.data(), payload.size()) == static_cast<ssize_t>(payload.size()),
          "payload not written");

  // Persisted: what can fail without a trace first.
  lookAt(path);
  struct stat status = {};
  require(::fstat(data, &status) == 0, "no status");
  std::string const note = base + ".dat\n" + std::to_string(status.st_size) + '\n' +
                           std::string(32, '0') + '\n' + metadata;
  bool const noted = ::fsetxattr(data, NOTE, note.data(), note.size(), 0) == 0;
  require(::fsync(data) == 0, "payload not flushed");
  int const folder = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  require(folder >= 0, "no directory");

  int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | FLAGS, 0644);
  require(fd >= 0 && lock(fd, F_SETLK, F_WRLCK) == 0, "no write lock");
  compareWithName(fd, path);
  require(::fstat(fd, &status) == 0, "no status");
  if (status.st_size > 0)
  {
    char buffer[8096];
    require(::pread(fd, buffer, static_cast<std::size_t>(status.st_size), 0) == status.st_size,
            "cannot read");
  }
  require(::fstat(fd, &status) == 0, "no status");
  auto const length = static_cast<ssize_t>(metadata.size());
  require(::pwrite(fd, metadata.data(), metadata.size(), 0) == length, "metadata not written");
  require(::ftruncate(fd, length) == 0, "metadata not truncated");
  require(::fdatasync(fd) == 0, "metadata not flushed before");
  ::close(data);
  static_cast<void>(::lstat(dataPath.c_str(), &status));
  require(::rename(temporary.c_str(), dataPath.c_str()) == 0, "payload not renamed");
  ::close(guard);
  require(::fsync(folder) == 0, "directory not flushed");
  if (noted)
    ::removexattr(dataPath.c_str(), NOTE);
  ::close(folder);
  require(::fsync(fd) == 0, "metadata not flushed");
  ::close(fd);
}

std::size_t bareEnumerate(std::string const& directory)
{
  DIR* const folder = ::opendir(directory.c_str());
  require(folder != nullptr, "no directory");
  std::string path = directory + '/';
  std::size_t const prefix = path.size();
  std::size_t found = 0;
  char buffer[8096];
  while (dirent const* const entry = ::readdir(folder))
  {
    std::size_t const length = std::strlen(entry->d_name);
    if (length < 4 || std::memcmp(entry->d_name + length - 4, ".xml", 4) != 0)
      continue;
    path.replace(prefix, std::string::npos, entry->d_name);
    int const fd = ::open(path.c_str(), O_RDWR | FLAGS);
    require(fd >= 0 && lock(fd, F_SETLKW, F_RDLCK) == 0, "no read lock");
    struct stat status = {};
    require(::fstat(fd, &status) == 0 && status.st_size <= static_cast<off_t>(sizeof buffer),
            "no status");
    require(::pread(fd, buffer, static_cast<std::size_t>(status.st_size), 0) == status.st_size,
            "cannot read");
    ::close(fd);
    ++found;
  }
  ::closedir(folder);
  return found;
}

} // namespace tqbench
