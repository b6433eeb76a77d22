#include "ozf/config/ConfigurationFiles.h"

#include "ozf/base/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t MAX_FILE_SIZE = 16UL * 1024 * 1024;

struct CloseDirectory
{
  void operator()(DIR* directory) const { closedir(directory); }
};

// Opens path only when it is a regular file: to open a device may act on it,
// and to read from a pipe may last for ever. Returns 0, an errno value, or -1
// when it is something else.
int openRegular(std::string const& path, UniqueFd& fd)
{
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0)
    return errno;
  if (!S_ISREG(status.st_mode))
    return -1;
  fd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd.valid() || fstat(fd.get(), &status) != 0)
    return errno;
  return S_ISREG(status.st_mode) ? 0 : -1;
}

} // namespace

bool listConfigurationFiles(std::string const& directory, std::vector<std::string>& paths,
                            std::string& mistake)
{
  std::unique_ptr<DIR, CloseDirectory> const opened(opendir(directory.c_str()));
  if (!opened)
  {
    int const error = errno;
    struct stat status = {};
    // A link that leads nowhere is there.
    if (error == ENOENT && lstat(directory.c_str(), &status) != 0)
      return true;
    mistake = "cannot be listed: " + errorText(error);
    return false;
  }
  errno = 0;
  while (dirent const* const entry = readdir(opened.get()))
    if (std::string_view const name = entry->d_name; name.ends_with(".conf") && name.front() != '.')
      paths.push_back(directory + '/' + entry->d_name);
  if (errno != 0)
  {
    mistake = "cannot be listed: " + errorText(errno);
    return false;
  }
  std::sort(paths.begin(), paths.end());
  return true;
}

bool readConfigurationFile(std::string const& path, std::string& text, std::string& mistake,
                           bool& missing)
{
  UniqueFd fd;
  int error = openRegular(path, fd);
  if (error == 0)
    error = readAll(fd.get(), text, MAX_FILE_SIZE);
  missing = error == ENOENT;
  if (error == -1)
    mistake = "not a regular file";
  else if (error == EFBIG)
    mistake = "larger than 16 MiB";
  else if (error != 0)
    mistake = "cannot be read: " + errorText(error);
  return error == 0;
}

} // namespace Quillon::Tessarine::Ozf
