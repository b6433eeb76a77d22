// The command line of tqpublish.

#pragma once

#include <string>

namespace Publish
{

// What tqpublish returns, with the numbers of the service.
enum ExitCode : int
{
  EXIT_ORDERLY = 0,
  EXIT_START_FAILED = 1,
  EXIT_USAGE = 2
};

struct Options
{
  enum Task
  {
    FOLLOW,
    MIGRATE,
    USAGE
  };

  Task task = FOLLOW;
  bool checkConfiguration = false;
  bool once = false; // end after one pass
  bool debug = false;
  int logLevel = -1;          // -1: not given
  std::string writer, reader; // roles, of MIGRATE; empty: none
};

// True when the program goes on; otherwise exitCode is what it returns. Help, version and
// usage errors are printed here.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

} // namespace Publish
