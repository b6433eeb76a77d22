// The socket that the gateway listens on.

#pragma once

#include "ozf/base/SystemError.h"
#include "ozf/config/ListenPlace.h"

#include <string>

namespace Web
{

// Not valid, with the reason in error, when there can be none. A socket in the file system
// that nobody listens on any more is replaced; user and group may connect to it.
Quillon::Tessarine::Ozf::UniqueFd listenAt(Quillon::Tessarine::Ozf::ListenPlace const& place,
                                           std::string& error);

} // namespace Web
