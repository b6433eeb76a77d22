#include "ozf/base/FreeMemory.h"

#include <malloc.h>

namespace Quillon::Tessarine::Ozf
{

void returnFreeMemory() noexcept { malloc_trim(0); }

void returnLargeBlocks() noexcept
{
  constexpr int LARGE = 256 << 10;
  mallopt(M_MMAP_THRESHOLD, LARGE);
}

} // namespace Quillon::Tessarine::Ozf
