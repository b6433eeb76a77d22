// A short text that stands for a long one.

#pragma once

#include "ozf/base/Export.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

inline constexpr std::size_t DIGEST_BYTES = 16;

using Sha256 = std::array<unsigned char, 32>;

// Throws std::runtime_error where the system has no SHA-256.
OZF_EXPORT Sha256 sha256Of(std::string_view text);

// The first 16 bytes of the text's SHA-256 as 32 lower-case hexadecimal digits.
// Throws std::runtime_error where the system has no SHA-256.
OZF_EXPORT std::string digestOf(std::string_view text);

} // namespace Quillon::Tessarine::Ozf
