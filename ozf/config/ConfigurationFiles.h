// The files that a configuration is read from: tq.conf, and then what lies in tq.conf.d
// beside it.

#pragma once

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// The files NAME.conf of the directory, in the byte order of their names; those whose
// names begin with a dot are none of them. Whatever has such a name is listed, also
// what can be no file. None where the directory is not there; false, with the reason
// in mistake, when it cannot be listed.
bool listConfigurationFiles(std::string const& directory, std::vector<std::string>& paths,
                            std::string& mistake);

// What a file holds. False, with the reason in mistake, when it cannot be read, is no
// regular file or larger than 16 MiB; missing then tells whether there is no such file.
bool readConfigurationFile(std::string const& path, std::string& text, std::string& mistake,
                           bool& missing);

} // namespace Quillon::Tessarine::Ozf
