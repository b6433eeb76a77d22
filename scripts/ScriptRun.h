// Runs one script to its end.

#pragma once

#include "ozf/base/SystemError.h"
#include "scripts/ScriptFile.h"

#include <chrono>
#include <string>

namespace Quillon::Tessarine::Ozf::Scripts
{

// Ends the runs that are given it, those that have not begun included. Any thread.
class RunStop
{
public:
  RunStop();

  void stop() noexcept;
  bool stopped() const noexcept;

  // Readable when it was stopped.
  int descriptor() const noexcept { return m_event.get(); }

private:
  UniqueFd m_event;
};

struct RunOutcome
{
  std::string failure; // why the output is of no use; empty: the script exited with 0
  std::string output;
  std::string errors;   // the last lines on standard error
  bool stopped = false; // by RunStop: nobody's failure
  std::chrono::milliseconds took{};
  long memory = 0; // KiB, the most that the script had; 0 when that is not known
};

// Runs the script without arguments and standard input, in an empty directory, which
// is removed afterwards, and with an environment of PATH, LANG and TESSARINE_SUBJECT.
// It was examined before, and is once more, before and after the run: what it printed
// counts only when the file is still the same. Blocks for its time-out and some seconds
// at most. What it started is gone then, unless even SIGKILL does not end it, which
// failure says. Any thread, several at a time.
RunOutcome runScript(ScriptFile const& script, Sidecar const& sidecar, std::string const& subject,
                     RunStop const& stop);

} // namespace Quillon::Tessarine::Ozf::Scripts
