// The log of tqdiscoweb.

#pragma once

#include "ozf/log/Logger.h"

namespace Quillon::Tessarine::Ozf
{
class Configuration;
}

namespace Web
{

// The originator number of the gateway's own lines.
Quillon::Tessarine::Ozf::OzfLogger* getWebLogger();

// Sets level and destination by the configuration; level: the command line's, -1 for none. A
// file that cannot be opened is a line at level 1, and standard error is used instead.
void setUpWebLog(Quillon::Tessarine::Ozf::Configuration const& configuration, int level);

} // namespace Web
