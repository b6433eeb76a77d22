#include "ozf/base/CoreDumps.h"

#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <mutex>
#include <optional>
#include <sys/resource.h>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Which kinds of memory a core holds, in hexadecimal. The limit of its size does not
// hold for programs that are handed one.
constexpr char FILTER[] = "/proc/self/coredump_filter";

struct Before
{
  rlim_t size;
  std::string filter;
};

bool writeFilter(std::string const& text)
{
  UniqueFd const file(open(FILTER, O_WRONLY | O_CLOEXEC));
  return file.valid() && write(file.get(), text.data(), text.size()) >= 0;
}

} // namespace

bool setCoreDumps(bool on, std::string& error)
{
  static std::mutex mutex;
  static std::optional<Before> before; // while they are off
  std::lock_guard const guard(mutex);
  if (on != before.has_value())
    return true;
  rlimit limit{};
  std::string filter("0");
  bool done = getrlimit(RLIMIT_CORE, &limit) == 0;
  if (on)
  {
    limit.rlim_cur = before->size;
    filter = "0x" + before->filter;
    before.reset();
  }
  else
  {
    std::string old;
    constexpr std::size_t LONGEST = 64;
    readFile(FILTER, old, LONGEST);
    before = Before{limit.rlim_cur, old};
    limit.rlim_cur = 0;
  }
  done = done && setrlimit(RLIMIT_CORE, &limit) == 0;
  if (!done)
    error = errorText(errno);
  if (!writeFilter(filter))
  {
    error = FILTER + (": " + errorText(errno));
    done = false;
  }
  return done;
}

} // namespace Quillon::Tessarine::Ozf
