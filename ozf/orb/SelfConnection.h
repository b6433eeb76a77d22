// Whether this process is connected with itself.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// Whether the process holds both ends of a TCP connection one of whose ends has
// that address (numeric, without the port). Looks at every open descriptor:
// for rare occasions. Any thread; false when the descriptors cannot be listed.
OZF_EXPORT bool isConnectedWithItself(std::string const& address);

} // namespace Quillon::Tessarine::Ozf
