// Code pages of narrow text. The product runs where narrow text is UTF-8, so
// there is one; names carry the page they were made with all the same.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

enum class CodePage : unsigned
{
  Utf8 = 65001
};

// The page of that name; an empty name asks for the process's default narrow
// page. Names that are not known get the default page. Any thread.
OZF_EXPORT CodePage findCodePage(std::string const& name);

} // namespace Quillon::Tessarine::Ozf
