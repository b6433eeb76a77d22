// The command line of tqdiscoweb.

#pragma once

#include "tools/Program.h"

#include <string>

namespace Web
{

struct Options : tqdiscoctl::ProgramOptions
{
  std::string page; // the folder of the page's files
};

// True when the program goes on; otherwise exitCode is what it returns. Help, version and
// usage errors are printed here.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

} // namespace Web
