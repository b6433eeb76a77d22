// Wildcard match.

#pragma once

#include "ozf/base/Export.h"

#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// Compares text with pattern, in which '*' stands for any run of bytes, the
// empty one included; no other character is special. ignoreCase folds ASCII
// letters. Returns 0 when the whole text matches, non-zero otherwise. Takes
// time proportional to the product of both lengths at worst.
OZF_EXPORT int wildcardcmp(std::string_view pattern, std::string_view text,
                           bool ignoreCase = false) noexcept;

} // namespace Quillon::Tessarine::Ozf
