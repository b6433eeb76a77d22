// Whether a file may be loaded into the service's process.

#pragma once

#include <string>

namespace Quillon::Tessarine::Ozf
{

// Follows the links of path, looks at the file and its folder, and returns
// whether both belong to root or to the effective user, no one else may write
// to them, and the file is a whole ELF file. On success realPath is the path
// without links; else reason says what is wrong and names the file or folder.
bool isTrustedLibrary(std::string const& path, std::string& realPath, std::string& reason);

} // namespace Quillon::Tessarine::Ozf
