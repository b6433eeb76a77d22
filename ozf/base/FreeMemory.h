// Memory that is free and the system does not know of.

#pragma once

#include "ozf/base/Export.h"

namespace Quillon::Tessarine::Ozf
{

// Hands what the process has freed back to the system, which the C library does
// by itself only where nothing in use lies behind it: a service would keep the
// size of the largest thing it ever did. Takes milliseconds for each gigabyte, and
// whoever needs the memory again has to get it anew, so it is for after work that
// is large and rare. Any thread.
OZF_EXPORT void returnFreeMemory() noexcept;

// From now on the system has every block of 256 KiB and more back as soon as it is freed.
// The C library otherwise keeps blocks as large as the largest that it has ever been given
// back, up to 32 MiB, and each for the threads that had it: a program whose threads take turns
// at large texts would hold several times what it needs. Before there are threads.
OZF_EXPORT void returnLargeBlocks() noexcept;

} // namespace Quillon::Tessarine::Ozf
