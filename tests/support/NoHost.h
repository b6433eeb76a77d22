// A name that belongs to no host.

#pragma once

#include <string>

// No resolver asks anybody for a label of more than 63 characters, so that it has no
// address wherever a test runs, and no test waits for a name server.
inline std::string const NO_HOST = std::string(70, 'x') + ".invalid";
