// The log of a program beside the service.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/log/Logger.h"

namespace Quillon::Tessarine::Ozf
{

class Configuration;
struct ConfigurationKey;

// Sets level and destination by the configuration: destination is the key that names it, name the
// program's in the system's log, level the command line's, -1 for none. A file that cannot be
// opened is a line at level 1 of that logger, and standard error is used instead.
OZF_EXPORT void setUpProgramLog(Configuration const& configuration,
                                ConfigurationKey const& destination, char const* name, int level,
                                OzfLogger* logger);

} // namespace Quillon::Tessarine::Ozf
