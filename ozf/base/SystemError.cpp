#include "ozf/base/SystemError.h"

#include <array>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

std::string errorText(int errorNumber)
{
  return std::generic_category().message(errorNumber) + " (" + std::to_string(errorNumber) + ")";
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
  if (this != &other)
    reset(other.release());
  return *this;
}

int UniqueFd::release() noexcept { return std::exchange(m_fd, -1); }

void UniqueFd::reset(int fd) noexcept
{
  int const old = std::exchange(m_fd, fd);
  if (old >= 0 && old != fd)
  {
    ErrnoKeeper keeper;
    // Not repeated on EINTR: the descriptor is gone by then, and its number
    // may already belong to another thread's file.
    ::close(old);
  }
}

int readAll(int fd, std::string& text, std::size_t limit)
{
  std::string got;
  std::array<char, 16384> buffer;
  for (;;)
  {
    ssize_t const count = ::read(fd, buffer.data(), buffer.size());
    if (count < 0)
    {
      if (errno == EINTR)
        continue;
      return errno;
    }
    if (count == 0)
      break;
    if (static_cast<std::size_t>(count) > limit - got.size())
      return EFBIG;
    got.append(buffer.data(), static_cast<std::size_t>(count));
  }
  text += got;
  return 0;
}

int readFile(std::string const& path, std::string& text, std::size_t limit)
{
  UniqueFd const fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid())
    return errno;
  return readAll(fd.get(), text, limit);
}

} // namespace Quillon::Tessarine::Ozf
