// Whether others may change a file that the configuration names.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// Whether somebody else than root, the running user and the user of the service, who is
// the owner of the database's folder, may change what is read at path: the file that it
// leads to, a link there, or the folder of either. A folder's sticky bit keeps others
// from it. reason then says by what and names it. What cannot be looked at is left to
// whoever opens it.
OZF_EXPORT bool othersMayChange(std::string const& path, std::string& reason);

} // namespace Quillon::Tessarine::Ozf
