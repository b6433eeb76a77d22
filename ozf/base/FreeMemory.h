// Memory that is free and the system does not know of.

#pragma once

#include "ozf/base/Export.h"

#include <cstddef>

namespace Quillon::Tessarine::Ozf
{

// What a piece of work has to have taken for it to be worth returning.
constexpr std::size_t LARGE_WORK = 16 * 1024 * 1024; // bytes

// Hands what the process has freed back to the system, which the C library does
// by itself only where nothing in use lies behind it: a service would keep the
// size of the largest thing it ever did. Takes milliseconds for each gigabyte, so
// it is for after large work. Any thread.
OZF_EXPORT void returnFreeMemory() noexcept;

} // namespace Quillon::Tessarine::Ozf
