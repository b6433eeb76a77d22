#include "tools/WholeFile.h"

#include "ozf/base/SystemError.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

bool writeTo(int fd, std::string_view text)
{
  while (!text.empty())
  {
    ssize_t const count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

} // namespace

int writeWhole(std::string const& path, std::string_view text)
{
  // No name that readers of a folder look for, as those of *.prom do.
  std::string temporary = path + ".XXXXXX";
  UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.valid())
    return errno;
  constexpr mode_t FOR_EVERYBODY = 0644;
  if (writeTo(file.get(), text) && ::fchmod(file.get(), FOR_EVERYBODY) == 0 &&
      ::fsync(file.get()) == 0 && ::rename(temporary.c_str(), path.c_str()) == 0)
    return 0;
  int const error = errno;
  ::unlink(temporary.c_str());
  return error;
}

} // namespace tqdiscoctl
