// The command line of tqdiscoweb.

#pragma once

#include <string>

namespace Web
{

// What tqdiscoweb returns, with the numbers of the service.
enum ExitCode : int
{
  EXIT_ORDERLY = 0,
  EXIT_START_FAILED = 1,
  EXIT_USAGE = 2
};

struct Options
{
  bool checkConfiguration = false;
  bool debug = false;
  int logLevel = -1; // -1: not given
  std::string page;  // the folder of the page's files
};

// True when the program goes on; otherwise exitCode is what it returns. Help, version and
// usage errors are printed here.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

} // namespace Web
