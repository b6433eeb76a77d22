// The text of an exception of any kind, for log lines.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// Inside a catch (...): what() of a standard exception, else the name of the
// type thrown.
OZF_EXPORT std::string currentExceptionText();

} // namespace Quillon::Tessarine::Ozf
