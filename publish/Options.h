// The command line of tqpublish.

#pragma once

#include "tools/Program.h"

#include <string>

namespace Publish
{

struct Options : tqdiscoctl::ProgramOptions
{
  enum Task
  {
    FOLLOW,
    MIGRATE,
    USAGE
  };

  Task task = FOLLOW;
  bool once = false;          // end after one pass
  std::string writer, reader; // roles, of MIGRATE; empty: none
};

// True when the program goes on; otherwise exitCode is what it returns. Help, version and
// usage errors are printed here.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

} // namespace Publish
