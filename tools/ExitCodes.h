// What the exit status of tqdiscoctl says; the help text lists the same.

#pragma once

namespace tqdiscoctl
{

enum ExitCode : int
{
  EXIT_DONE = 0,          // found, or done
  EXIT_FAILED = 1,        // could not be done at all
  EXIT_USAGE = 2,         // wrong usage
  EXIT_NOTHING = 3,       // nothing matched
  EXIT_PARTLY = 4,        // done in part; what was not is reported
  EXIT_NOT_REACHABLE = 5, // no service answered
  EXIT_REFUSED = 6        // the service does not allow it to who asks
};

} // namespace tqdiscoctl
