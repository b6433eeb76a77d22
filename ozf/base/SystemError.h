// The one place that turns error numbers into text, and the handle that
// closes itself without disturbing errno.

#pragma once

#include "ozf/base/Export.h"

#include <cerrno>
#include <string>

namespace Quillon::Tessarine::Ozf
{

// "No such file or directory (2)". Thread-safe.
OZF_EXPORT std::string errorText(int errorNumber);

// Keeps errno as it was over a clean-up.
class ErrnoKeeper
{
public:
  ErrnoKeeper() noexcept : m_saved(errno) {}
  ~ErrnoKeeper() { errno = m_saved; }
  ErrnoKeeper(ErrnoKeeper const&) = delete;
  ErrnoKeeper& operator=(ErrnoKeeper const&) = delete;

private:
  int m_saved;
};

// Owns one file descriptor. Movable, not copyable.
class OZF_EXPORT UniqueFd
{
public:
  explicit UniqueFd(int fd = -1) noexcept : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  ~UniqueFd() { reset(); }

  int get() const noexcept { return m_fd; }
  bool valid() const noexcept { return m_fd >= 0; }

  // Gives the descriptor away.
  int release() noexcept;

  // Closes what is held (errno is kept) and takes fd.
  void reset(int fd = -1) noexcept;

private:
  int m_fd;
};

// Reads from fd at its position until end of file into text (appending), but
// never more than limit bytes. Returns 0, or an errno value: EFBIG when the
// file holds more than limit. text is unchanged on failure.
OZF_EXPORT int readAll(int fd, std::string& text, std::size_t limit);

// Reads the file at path as readAll does; also returns the errno of the open.
OZF_EXPORT int readFile(std::string const& path, std::string& text, std::size_t limit);

} // namespace Quillon::Tessarine::Ozf
