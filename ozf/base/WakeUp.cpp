#include "ozf/base/WakeUp.h"

#include "ozf/base/SystemError.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr int MOST_ATTEMPTS = 100;

} // namespace

void wakeUp(int eventFd) noexcept
{
  ErrnoKeeper const keeper;
  std::uint64_t const one = 1;
  // Somebody waits for the thread that waits for this, and would for ever.
  int attempts = MOST_ATTEMPTS;
  while (::write(eventFd, &one, sizeof one) < 0 && errno != EAGAIN && attempts > 0)
    if (errno != EINTR)
      --attempts;
}

} // namespace Quillon::Tessarine::Ozf
