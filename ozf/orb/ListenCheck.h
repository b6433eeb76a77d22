// Where the ORB listens, and whether it can.

#pragma once

#include "ozf/base/Export.h"

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// The transport end points ("giop:tcp:127.0.0.1:27511") for the addresses, all
// addresses of the host when there are none. A port of 0 lets the system pick.
OZF_EXPORT std::vector<std::string> makeEndPoints(std::vector<std::string> const& addresses,
                                                  unsigned short port);

// Whether a socket can listen on every address; if not, error says why not and
// where: "Unable to listen on 127.0.0.1:27511: Address already in use (98)".
OZF_EXPORT bool canListen(std::vector<std::string> const& addresses, unsigned short port,
                          std::string& error);

} // namespace Quillon::Tessarine::Ozf
