// Whether a service of this host answers.

#pragma once

#include "ozf/base/Export.h"

#include <chrono>
#include <string>

namespace Quillon::Tessarine::Ozf
{

// Connects to the service's port, at the first address of ORB_BIND or else at
// 127.0.0.1, and asks whether the object called like the service is there. True
// when that is answered, whatever the answer: connections are accepted and requests
// served then. False after the time. A service without a port counts as
// answering. Does not use the ORB, which calls its own process without the port.
// Any thread; blocks for that time at most.
OZF_EXPORT bool isServiceAnswering(std::string const& service, std::chrono::milliseconds time);

// Whether that question, now being asked by this process, comes from the port:
// it must not be refused because of what others do who share the address.
bool isLivenessQuestion(unsigned short port) noexcept;

} // namespace Quillon::Tessarine::Ozf
