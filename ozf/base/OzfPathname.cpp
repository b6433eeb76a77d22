#include "ozf/base/OzfPathname.h"

#include "ozf/base/SystemError.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf
{
namespace
{

// A folder that we may not read, or whose file system does not flush folders,
// is left to the system.
int flushDirectory(std::string const& path)
{
  UniqueFd const directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid() || ::fsync(directory.get()) == 0 || errno == EINVAL || errno == ENOTSUP)
    return 0;
  return errno;
}

// Sets flushed to the error of a flush that failed, unless one did before.
int makeOne(std::string const& path, mode_t mode, int& flushed)
{
  if (::mkdir(path.c_str(), mode) == 0)
  {
    int const error = flushDirectory(OzfPathname(path).directory());
    if (flushed == 0)
      flushed = error;
    return 0;
  }
  int const error = errno;
  // A read-only file system or a parent without write permission may refuse
  // to make what is there already, so any refusal is checked against the facts.
  struct stat found
  {
  };
  if (::stat(path.c_str(), &found) != 0)
    return error == EEXIST ? ENOTDIR : error;
  return S_ISDIR(found.st_mode) ? 0 : ENOTDIR;
}

} // namespace

OzfPathname OzfPathname::makeFilename(std::string const& directory, std::string const& name)
{
  if (name.empty())
    return OzfPathname(directory);
  if (directory.empty())
    return OzfPathname(name);
  std::string path;
  path.reserve(directory.size() + 1 + name.size());
  path = directory;
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  if (path.back() != '/')
    path += '/';
  auto const first = name.find_first_not_of('/');
  if (first != std::string::npos)
    path.append(name, first);
  return OzfPathname(std::move(path));
}

std::string OzfPathname::directory() const
{
  auto const slash = m_path.rfind('/');
  if (slash == std::string::npos)
    return ".";
  return slash == 0 ? "/" : m_path.substr(0, slash);
}

std::string OzfPathname::filename() const
{
  auto const slash = m_path.rfind('/');
  return slash == std::string::npos ? m_path : m_path.substr(slash + 1);
}

int mkdirpath(std::string const& path, mode_t mode)
{
  if (path.empty())
    return ENOENT;
  if (path.find('\0') != std::string::npos)
    return EINVAL;
  int flushed = 0;
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1))
  {
    if (path[slash - 1] == '/')
      continue;
    if (int const error = makeOne(path.substr(0, slash), mode, flushed); error != 0)
      return error;
  }
  auto const last = path.find_last_not_of('/');
  int const error =
      makeOne(last == std::string::npos ? "/" : path.substr(0, last + 1), mode, flushed);
  return error != 0 ? error : flushed;
}

} // namespace Quillon::Tessarine::Ozf
