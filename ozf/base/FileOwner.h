// Whether anybody else may change a file or folder.

#pragma once

#include "ozf/base/Export.h"

#include <string>

struct stat;

namespace Quillon::Tessarine::Ozf
{

// Whether what status describes belongs to root or to the effective user, and no
// one else may write to it. A folder's sticky bit keeps others from replacing
// files, yet lets them add some; so it makes no difference. Otherwise reason says
// what is wrong and names path.
OZF_EXPORT bool isOnlyOurs(std::string const& path, struct stat const& status, std::string& reason);

} // namespace Quillon::Tessarine::Ozf
