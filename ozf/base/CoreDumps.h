// Whether a crash leaves what the process has in memory behind.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// Off: no core file is written, and a program that the system hands crashes to gets
// nothing of this process's memory. On: as it was when the process began. False, with
// the reason in error, when the system refuses a part of it; the rest is done. Any
// thread.
OZF_EXPORT bool setCoreDumps(bool on, std::string& error);

} // namespace Quillon::Tessarine::Ozf
