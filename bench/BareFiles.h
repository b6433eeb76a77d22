// The floors: the system calls of the file database and nothing else. What
// they do by way of calls must be what the library does; docs/performance.md
// says how to compare the two.

#pragma once

#include <string>

namespace tqbench
{

// Makes or replaces one discovery in directory as a writer of the library
// does, who opens it for update, writes the payload and persists.
void barePersist(std::string const& directory, std::string const& base, std::string const& metadata,
                 std::string const& payload);

// Reads every metadata file of the directory under a read lock; how many there
// were.
std::size_t bareEnumerate(std::string const& directory);

} // namespace tqbench
