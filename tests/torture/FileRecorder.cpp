#include "tests/torture/FileRecorder.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace tqtorture
{
namespace
{

thread_local FileRecorder* recorder = nullptr;
bool leaveOut = false;

template <class Function>
Function* theirs(char const* name)
{
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr)
    std::abort();
  return reinterpret_cast<Function*>(found);
}

bool isThere(char const* path)
{
  struct stat status
  {
  };
  int const error = errno;
  bool const there = lstat(path, &status) == 0;
  errno = error;
  return there;
}

mode_t modeIn(int flags, va_list arguments)
{
  return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

FileRecorder::FileRecorder(std::string directory) : m_directory(std::move(directory))
{
  if (std::filesystem::exists(m_directory))
    m_image = loadImage(m_directory);
  recorder = this;
}

FileRecorder::~FileRecorder() { recorder = nullptr; }

FileRecorder* FileRecorder::current() { return recorder; }
void FileRecorder::leaveOutFlushes() { leaveOut = true; }
bool FileRecorder::flushesAreLeftOut() { return leaveOut; }

void FileRecorder::note(Event event)
{
  apply(m_image, event);
  m_log.push_back(std::move(event));
}

void FileRecorder::acknowledge(std::size_t operation)
{
  note({.kind = Event::ACKNOWLEDGED, .offset = operation});
}

std::size_t FileRecorder::nodeOf(int fd) const
{
  auto const found = m_open.find(fd);
  return found == m_open.end() ? NONE : found->second;
}

std::size_t FileRecorder::parentOf(std::string const& path, std::string& name) const
{
  std::filesystem::path const whole = std::filesystem::path(path).lexically_normal();
  name = whole.filename().string();
  return name.empty() ? NONE : nodeAt(whole.parent_path().string());
}

std::size_t FileRecorder::nodeAt(std::string const& path) const
{
  std::string const relative =
      std::filesystem::path(path).lexically_normal().lexically_relative(m_directory).string();
  if (relative.empty() || relative.rfind("..", 0) == 0)
    return NONE;
  std::size_t at = 0;
  for (auto const& part : std::filesystem::path(relative))
  {
    if (part == "." || part.empty())
      continue;
    auto const& entries = m_image.nodes[at].entries;
    auto const found = entries.find(part.string());
    if (found == entries.end())
      return NONE;
    at = found->second;
  }
  return at;
}

void FileRecorder::opened(int fd, std::string const& path, int flags, bool wasThere)
{
  std::string name;
  std::size_t const directory = parentOf(path, name);
  std::size_t node = nodeAt(path);
  if (node == NONE && directory != NONE && (flags & O_CREAT) != 0 && !wasThere)
  {
    node = m_image.nodes.size();
    m_image.nodes.emplace_back();
    note({.kind = Event::CREATE, .node = node, .directory = directory, .name = name});
  }
  if (node == NONE)
    return;
  m_open[fd] = node;
  if ((flags & O_TRUNC) != 0 && wasThere)
    truncated(fd, 0);
}

void FileRecorder::closed(int fd) { m_open.erase(fd); }

void FileRecorder::madeDirectory(std::string const& path)
{
  std::string name;
  std::size_t const directory = parentOf(path, name);
  if (directory == NONE)
    return;
  std::size_t const node = m_image.nodes.size();
  m_image.nodes.emplace_back();
  note({.kind = Event::CREATE,
        .node = node,
        .directory = directory,
        .name = name,
        .makesDirectory = true});
}

void FileRecorder::renamed(std::string const& from, std::string const& to)
{
  Event event{.kind = Event::RENAME, .node = nodeAt(from)};
  event.directory = parentOf(from, event.name);
  event.otherDirectory = parentOf(to, event.otherName);
  if (event.node != NONE && event.directory != NONE && event.otherDirectory != NONE)
    note(std::move(event));
}

void FileRecorder::unlinked(std::string const& path)
{
  Event event{.kind = Event::UNLINK, .node = nodeAt(path)};
  event.directory = parentOf(path, event.name);
  if (event.node != NONE)
    note(std::move(event));
}

void FileRecorder::wrote(int fd, std::uint64_t offset, void const* bytes, std::size_t size)
{
  if (std::size_t const node = nodeOf(fd); node != NONE)
    note({.kind = Event::WRITE,
          .node = node,
          .offset = offset,
          .bytes = std::string(static_cast<char const*>(bytes), size)});
}

void FileRecorder::truncated(int fd, std::uint64_t size)
{
  if (std::size_t const node = nodeOf(fd); node != NONE)
    note({.kind = Event::TRUNCATE, .node = node, .offset = size});
}

void FileRecorder::setAttribute(std::size_t node, std::string const& name, void const* value,
                                std::size_t size)
{
  if (node != NONE)
    note({.kind = Event::ATTRIBUTE,
          .node = node,
          .name = name,
          .bytes = std::string(static_cast<char const*>(value), size)});
}

void FileRecorder::removedAttribute(std::size_t node, std::string const& name)
{
  if (node != NONE)
    note({.kind = Event::NO_ATTRIBUTE, .node = node, .name = name});
}

void FileRecorder::flushed(int fd, Event::Kind kind)
{
  if (std::size_t const node = nodeOf(fd); node != NONE)
    note({.kind = kind, .node = node});
}

namespace
{

using OpenFunction = int(char const*, int, ...);
using OpenAtFunction = int(int, char const*, int, ...);

int openWith(OpenFunction* next, char const* path, int flags, mode_t mode)
{
  FileRecorder* const active = FileRecorder::current();
  bool const wasThere = active != nullptr && isThere(path);
  int const fd = next(path, flags, mode);
  if (fd >= 0 && active != nullptr)
    active->opened(fd, path, flags, wasThere);
  return fd;
}

// Names below an open directory of the tree are not told; a call that changes
// something that way shows when the recorder's image is compared.
int openAtWith(OpenAtFunction* next, int directory, char const* path, int flags, mode_t mode)
{
  FileRecorder* const active = path[0] == '/' ? FileRecorder::current() : nullptr;
  bool const wasThere = active != nullptr && isThere(path);
  int const fd = next(directory, path, flags, mode);
  if (fd >= 0 && active != nullptr)
    active->opened(fd, path, flags, wasThere);
  return fd;
}

ssize_t notePositioned(ssize_t count, int fd, void const* bytes, off_t offset)
{
  if (FileRecorder* const active = FileRecorder::current(); active != nullptr && count > 0)
    active->wrote(fd, static_cast<std::uint64_t>(offset), bytes, static_cast<std::size_t>(count));
  return count;
}

int noteTruncation(int result, int fd, off_t size)
{
  if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
    active->truncated(fd, static_cast<std::uint64_t>(size));
  return result;
}

template <class Status>
int forgetType(int result, Status* status)
{
  if (FileRecorder::current() != nullptr && result == 0)
    status->f_type = 0;
  return result;
}

int flushWith(int (*next)(int), int fd, Event::Kind kind)
{
  int const result = FileRecorder::flushesAreLeftOut() ? 0 : next(fd);
  if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
    active->flushed(fd, kind);
  return result;
}

} // namespace
} // namespace tqtorture

using tqtorture::Event;
using tqtorture::FileRecorder;
using tqtorture::theirs;

// Or else nobody outside of the program would find them.
#pragma GCC visibility push(default)
extern "C"
{

  int open(char const* path, int flags, ...)
  {
    static auto* const next = theirs<tqtorture::OpenFunction>("open");
    va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = tqtorture::modeIn(flags, arguments);
    va_end(arguments);
    return tqtorture::openWith(next, path, flags, mode);
  }

  int open64(char const* path, int flags, ...)
  {
    static auto* const next = theirs<tqtorture::OpenFunction>("open64");
    va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = tqtorture::modeIn(flags, arguments);
    va_end(arguments);
    return tqtorture::openWith(next, path, flags, mode);
  }

  int openat(int directory, char const* path, int flags, ...)
  {
    static auto* const next = theirs<tqtorture::OpenAtFunction>("openat");
    va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = tqtorture::modeIn(flags, arguments);
    va_end(arguments);
    return tqtorture::openAtWith(next, directory, path, flags, mode);
  }

  int close(int fd)
  {
    static auto* const next = theirs<int(int)>("close");
    if (FileRecorder* const active = FileRecorder::current())
      active->closed(fd);
    return next(fd);
  }

  ssize_t write(int fd, void const* bytes, size_t size)
  {
    static auto* const next = theirs<ssize_t(int, void const*, size_t)>("write");
    FileRecorder* const active = FileRecorder::current();
    bool const ours = active != nullptr && active->nodeOf(fd) != FileRecorder::NONE;
    off_t const at = ours ? lseek(fd, 0, SEEK_CUR) : 0;
    ssize_t const count = next(fd, bytes, size);
    return ours ? tqtorture::notePositioned(count, fd, bytes, at) : count;
  }

  ssize_t pwrite(int fd, void const* bytes, size_t size, off_t offset)
  {
    static auto* const next = theirs<ssize_t(int, void const*, size_t, off_t)>("pwrite");
    return tqtorture::notePositioned(next(fd, bytes, size, offset), fd, bytes, offset);
  }

  ssize_t pwrite64(int fd, void const* bytes, size_t size, off_t offset)
  {
    static auto* const next = theirs<ssize_t(int, void const*, size_t, off_t)>("pwrite64");
    return tqtorture::notePositioned(next(fd, bytes, size, offset), fd, bytes, offset);
  }

  int ftruncate(int fd, off_t size) noexcept
  {
    static auto* const next = theirs<int(int, off_t)>("ftruncate");
    return tqtorture::noteTruncation(next(fd, size), fd, size);
  }

  int ftruncate64(int fd, off_t size) noexcept
  {
    static auto* const next = theirs<int(int, off_t)>("ftruncate64");
    return tqtorture::noteTruncation(next(fd, size), fd, size);
  }

  int unlink(char const* path) noexcept
  {
    static auto* const next = theirs<int(char const*)>("unlink");
    int const result = next(path);
    if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
      active->unlinked(path);
    return result;
  }

  int rename(char const* from, char const* to) noexcept
  {
    static auto* const next = theirs<int(char const*, char const*)>("rename");
    int const result = next(from, to);
    if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
      active->renamed(from, to);
    return result;
  }

  int mkdir(char const* path, mode_t mode) noexcept
  {
    static auto* const next = theirs<int(char const*, mode_t)>("mkdir");
    int const result = next(path, mode);
    if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
      active->madeDirectory(path);
    return result;
  }

  int fsync(int fd)
  {
    static auto* const next = theirs<int(int)>("fsync");
    return tqtorture::flushWith(next, fd, Event::FLUSH);
  }

  // What is recorded lies on a file system of which nothing is known.
  int fstatfs(int fd, struct statfs* status) noexcept
  {
    static auto* const next = theirs<int(int, struct statfs*)>("fstatfs");
    return tqtorture::forgetType(next(fd, status), status);
  }

  int fstatfs64(int fd, struct statfs64* status) noexcept
  {
    static auto* const next = theirs<int(int, struct statfs64*)>("fstatfs64");
    return tqtorture::forgetType(next(fd, status), status);
  }

  int fdatasync(int fd)
  {
    static auto* const next = theirs<int(int)>("fdatasync");
    return tqtorture::flushWith(next, fd, Event::FLUSH_DATA);
  }

  int syncfs(int fd) noexcept
  {
    static auto* const next = theirs<int(int)>("syncfs");
    return tqtorture::flushWith(next, fd, Event::FLUSH_ALL);
  }

  int fsetxattr(int fd, char const* name, void const* value, size_t size, int flags) noexcept
  {
    static auto* const next = theirs<int(int, char const*, void const*, size_t, int)>("fsetxattr");
    int const result = next(fd, name, value, size, flags);
    if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
      active->setAttribute(active->nodeOf(fd), name, value, size);
    return result;
  }

  int setxattr(char const* path, char const* name, void const* value, size_t size,
               int flags) noexcept
  {
    static auto* const next =
        theirs<int(char const*, char const*, void const*, size_t, int)>("setxattr");
    int const result = next(path, name, value, size, flags);
    if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
      active->setAttribute(active->nodeAt(path), name, value, size);
    return result;
  }

  int fremovexattr(int fd, char const* name) noexcept
  {
    static auto* const next = theirs<int(int, char const*)>("fremovexattr");
    int const result = next(fd, name);
    if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
      active->removedAttribute(active->nodeOf(fd), name);
    return result;
  }

  int removexattr(char const* path, char const* name) noexcept
  {
    static auto* const next = theirs<int(char const*, char const*)>("removexattr");
    int const result = next(path, name);
    if (FileRecorder* const active = FileRecorder::current(); active != nullptr && result == 0)
      active->removedAttribute(active->nodeAt(path), name);
    return result;
  }

} // extern "C"
#pragma GCC visibility pop
