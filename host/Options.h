// The command line of tqdisco.

#pragma once

#include <string>

namespace Host
{

// What tqdisco returns. Service managers and scripts rely on the numbers.
enum ExitCode : int
{
  EXIT_ORDERLY = 0,
  EXIT_START_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_STOP_FAILED = 3,
  EXIT_NO_DATABASE = 4
};

struct Options
{
  bool checkConfiguration = false;
  bool dumpConfiguration = false;
  bool json = false; // of the dump
  bool debug = false;
  int logLevel = -1; // -1: not given
};

// True when the program goes on; otherwise exitCode is what it returns. Help,
// version and usage errors are printed here.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

} // namespace Host
