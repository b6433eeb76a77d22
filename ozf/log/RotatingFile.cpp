#include "ozf/log/RotatingFile.h"

#include "ozf/base/OzfPathname.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr int FLAGS = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
constexpr mode_t FILE_MODE = 0640;
constexpr mode_t FOLDER_MODE = 0750;

} // namespace

int RotatingFile::open()
{
  UniqueFd fd(::open(m_path.c_str(), FLAGS, FILE_MODE));
  if (!fd.valid() && errno == ENOENT)
  {
    if (int const error = mkdirpath(OzfPathname(m_path).directory(), FOLDER_MODE))
      return error;
    fd.reset(::open(m_path.c_str(), FLAGS, FILE_MODE));
  }
  struct stat status = {};
  if (!fd.valid() || ::fstat(fd.get(), &status) != 0)
    return errno;
  m_fd = std::move(fd);
  m_regular = S_ISREG(status.st_mode);
  m_size = static_cast<std::size_t>(status.st_size);
  m_moved = false;
  return 0;
}

int RotatingFile::append(std::string_view text)
{
  if (!m_fd.valid() || m_moved)
    if (int const error = open(); error != 0 && !m_fd.valid())
      return error;
  if (m_regular && !m_moved && m_size > 0 && m_size + text.size() > SIZE)
    rotate();
  std::size_t done = 0;
  while (done < text.size())
  {
    ssize_t const count = ::write(m_fd.get(), text.data() + done, text.size() - done);
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
    {
      int const error = count < 0 ? errno : ENOSPC;
      takeBack(done);
      return error;
    }
    done += static_cast<std::size_t>(count);
  }
  m_size += done;
  return 0;
}

// Half a line would spoil the one behind it as well.
void RotatingFile::takeBack(std::size_t count)
{
  struct stat status = {};
  if (count == 0 || !m_regular || ::fstat(m_fd.get(), &status) != 0)
    return;
  if (::ftruncate(m_fd.get(), status.st_size - static_cast<off_t>(count)) != 0)
    m_size += count;
}

std::string RotatingFile::numbered(std::size_t number) const
{
  if (number == 0)
    return m_path;
  auto const name = m_path.rfind('/') + 1; // 0 when there is none
  auto const dot = m_path.rfind('.');
  auto const end = dot == std::string::npos || dot <= name ? m_path.size() : dot;
  return m_path.substr(0, end) + '.' + std::to_string(number) + m_path.substr(end);
}

void RotatingFile::rotate()
{
  // Somebody else may have emptied it.
  struct stat status = {};
  if (::fstat(m_fd.get(), &status) == 0 && static_cast<std::size_t>(status.st_size) < m_size)
  {
    m_size = static_cast<std::size_t>(status.st_size);
    return;
  }
  for (std::size_t number = OLD_FILES; number > 0; --number)
    if (std::rename(numbered(number - 1).c_str(), numbered(number).c_str()) != 0 && errno != ENOENT)
    {
      m_size = 0;
      return;
    }
  m_moved = true;
  open();
}

} // namespace Quillon::Tessarine::Ozf
