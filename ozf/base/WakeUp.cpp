#include "ozf/base/WakeUp.h"

#include "ozf/base/SystemError.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace Quillon::Tessarine::Ozf
{

void wakeUp(int eventFd) noexcept
{
  ErrnoKeeper const keeper;
  std::uint64_t const one = 1;
  while (::write(eventFd, &one, sizeof one) < 0 && errno == EINTR)
  {
  }
}

} // namespace Quillon::Tessarine::Ozf
