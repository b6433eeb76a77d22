// The numbers of a query and their units.

#pragma once

#include "ozf/base/Export.h"

#include <optional>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// What a number without one of the units is met with.
inline constexpr char EXPECTED_QUERY_UNIT[] =
    "expected a number with one of the units B K M G T P KiB MiB GiB TiB PiB KB MB GB TB PB "
    "s m h d w %, or a text in quotes";

// The number that the text reads as, in the base unit; absent when it is none.
OZF_EXPORT std::optional<long double> parseQueryNumber(std::string_view text);

// A number and a short run of letters: most likely a unit with a slip of the
// pen, which must not turn into a comparison of texts.
bool looksLikeNumberWithUnit(std::string_view text);

// "size*0.8" and "size/2": most likely a calculation.
bool looksLikeCalculation(std::string_view text);

} // namespace Quillon::Tessarine::Ozf
