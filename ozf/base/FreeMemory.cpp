#include "ozf/base/FreeMemory.h"

#include <malloc.h>

namespace Quillon::Tessarine::Ozf
{

void returnFreeMemory() noexcept { malloc_trim(0); }

} // namespace Quillon::Tessarine::Ozf
