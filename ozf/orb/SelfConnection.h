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

// Whether the process holds the other end of that connection, too. Costs and fails
// alike.
OZF_EXPORT bool isConnectedWithItself(int descriptor);

} // namespace Quillon::Tessarine::Ozf
