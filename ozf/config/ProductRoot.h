// Where the product lives on this host.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// "/usr/kestrel/tessarine", or what the environment variable TESSARINE_ROOT
// names; without a slash at the end. Read anew on every call.
OZF_EXPORT std::string getProductRoot();

// Paths below the root.
OZF_EXPORT std::string getConfigurationPath();   // etc/tq.conf
OZF_EXPORT std::string getDefaultDatabasePath(); // db/discovery
OZF_EXPORT std::string getLibraryDirectory();    // lib
OZF_EXPORT std::string getPluginDirectory();     // lib/plugins
OZF_EXPORT std::string getScriptDirectory();     // explorers.d
OZF_EXPORT std::string getLogDirectory();        // log

} // namespace Quillon::Tessarine::Ozf
