#include "tests/unit/discovery/SystemCalls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace
{

thread_local SystemCalls* watcher = nullptr;

template <class Function>
Function* original(char const* name)
{
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr)
    std::abort();
  return reinterpret_cast<Function*>(found);
}

std::string pathOf(int fd)
{
  char path[4096];
  ssize_t const length =
      readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
  return length < 0 ? std::string() : std::string(path, static_cast<std::size_t>(length));
}

} // namespace

SystemCalls::SystemCalls(std::string directory, Answer answer)
    : m_directory(std::move(directory)), m_answer(std::move(answer))
{
  watcher = this;
}

SystemCalls::~SystemCalls() { watcher = nullptr; }

bool SystemCalls::changes(std::string const& call)
{
  for (char const* const other : {"fcntl", "open", "pread", "read", "fstat", "access"})
    if (call.starts_with(other))
      return false;
  return true;
}

bool SystemCalls::fails(std::string const& function, int fd)
{
  return watcher != nullptr && watcher->answers(function, pathOf(fd));
}

bool SystemCalls::fails(std::string const& function, char const* path)
{
  return watcher != nullptr && watcher->answers(function, path);
}

bool SystemCalls::answers(std::string const& function, std::string const& path)
{
  std::string name = ".";
  if (path != m_directory)
  {
    if (!path.starts_with(m_directory + "/"))
      return false;
    name = path.substr(m_directory.size() + 1);
  }
  m_seen.push_back(function + " " + name);
  int const error = m_answer ? m_answer(m_seen.back()) : 0;
  if (error != 0)
    errno = error;
  return error != 0;
}

// Or else nobody outside of the program would find them.
#pragma GCC visibility push(default)
extern "C"
{

  int open(char const* path, int flags, ...)
  {
    static auto* const next = original<int(char const*, int, ...)>("open");
    va_list arguments;
    va_start(arguments, flags);
    auto const mode = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return SystemCalls::fails("open", path) ? -1 : next(path, flags, mode);
  }

  DIR* opendir(char const* path)
  {
    static auto* const next = original<DIR*(char const*)>("opendir");
    return SystemCalls::fails("opendir", path) ? nullptr : next(path);
  }

  dirent* readdir(DIR* directory)
  {
    static auto* const next = original<dirent*(DIR*)>("readdir");
    return SystemCalls::fails("readdir", dirfd(directory)) ? nullptr : next(directory);
  }

  ssize_t read(int fd, void* buffer, size_t size)
  {
    static auto* const next = original<ssize_t(int, void*, size_t)>("read");
    return SystemCalls::fails("read", fd) ? -1 : next(fd, buffer, size);
  }

  ssize_t pread(int fd, void* buffer, size_t size, off_t offset)
  {
    static auto* const next = original<ssize_t(int, void*, size_t, off_t)>("pread");
    return SystemCalls::fails("pread", fd) ? -1 : next(fd, buffer, size, offset);
  }

  int fstat(int fd, struct stat* status) noexcept
  {
    static auto* const next = original<int(int, struct stat*)>("fstat");
    return SystemCalls::fails("fstat", fd) ? -1 : next(fd, status);
  }

  // Everywhere one that keeps the names of flushed files, whatever the tests run
  // on; one that fails is unknown.
  int fstatfs(int fd, struct statfs* status) noexcept
  {
    static auto* const next = original<int(int, struct statfs*)>("fstatfs");
    int const result = SystemCalls::fails("fstatfs", fd) ? -1 : next(fd, status);
    if (result == 0)
      status->f_type = EXT4_SUPER_MAGIC;
    return result;
  }

  ssize_t write(int fd, void const* buffer, size_t size)
  {
    static auto* const next = original<ssize_t(int, void const*, size_t)>("write");
    return SystemCalls::fails("write", fd) ? -1 : next(fd, buffer, size);
  }

  ssize_t pwrite(int fd, void const* buffer, size_t size, off_t offset)
  {
    static auto* const next = original<ssize_t(int, void const*, size_t, off_t)>("pwrite");
    return SystemCalls::fails("pwrite", fd) ? -1 : next(fd, buffer, size, offset);
  }

  int ftruncate(int fd, off_t length) noexcept
  {
    static auto* const next = original<int(int, off_t)>("ftruncate");
    return SystemCalls::fails("ftruncate", fd) ? -1 : next(fd, length);
  }

  int fsync(int fd)
  {
    static auto* const next = original<int(int)>("fsync");
    return SystemCalls::fails("fsync", fd) ? -1 : next(fd);
  }

  int fdatasync(int fd)
  {
    static auto* const next = original<int(int)>("fdatasync");
    return SystemCalls::fails("fdatasync", fd) ? -1 : next(fd);
  }

  int fsetxattr(int fd, char const* name, void const* value, size_t size, int flags) noexcept
  {
    static auto* const next =
        original<int(int, char const*, void const*, size_t, int)>("fsetxattr");
    return SystemCalls::fails("fsetxattr", fd) ? -1 : next(fd, name, value, size, flags);
  }

  int removexattr(char const* path, char const* name) noexcept
  {
    static auto* const next = original<int(char const*, char const*)>("removexattr");
    return SystemCalls::fails("removexattr", path) ? -1 : next(path, name);
  }

  int access(char const* path, int mode) noexcept
  {
    static auto* const next = original<int(char const*, int)>("access");
    return SystemCalls::fails("access", path) ? -1 : next(path, mode);
  }

  int unlink(char const* path) noexcept
  {
    static auto* const next = original<int(char const*)>("unlink");
    return SystemCalls::fails("unlink", path) ? -1 : next(path);
  }

  int rename(char const* from, char const* to) noexcept
  {
    static auto* const next = original<int(char const*, char const*)>("rename");
    return SystemCalls::fails("rename", from) ? -1 : next(from, to);
  }

  int fcntl(int fd, int command, ...)
  {
    static auto* const next = original<int(int, int, ...)>("fcntl");
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*); // a number travels in it as well
    va_end(arguments);
    if (watcher != nullptr && (command == F_SETLK || command == F_SETLKW))
    {
      short const type = static_cast<struct flock const*>(argument)->l_type;
      std::string const function =
          std::string(command == F_SETLK ? "fcntl setlk " : "fcntl setlkw ") +
          (type == F_RDLCK   ? "read"
           : type == F_WRLCK ? "write"
                             : "unlock");
      if (SystemCalls::fails(function, fd))
        return -1;
    }
    return next(fd, command, argument);
  }

} // extern "C"
#pragma GCC visibility pop
