// What programs beside the service do alike: signals, and the report on their configuration.

#pragma once

#include "ozf/config/Configuration.h"

#include <functional>
#include <string>
#include <vector>

namespace tqdiscoctl
{

// First of all in a program, before there are threads: whoever starts it may stop it at once.
// SIGPIPE is ignored; those that stop it, and SIGHUP, wait for awaitStop.
void takeSignals();

// Waits for SIGTERM or SIGINT, or for endAwaitStop of another thread. tell gets an empty text for
// a SIGHUP, and for a signal that stops the line for the log.
void awaitStop(std::function<void(std::string const&)> const& tell);
void endAwaitStop();

// Prints every mistake, or the files without any. False when there is one.
bool printProblems(Quillon::Tessarine::Ozf::Configuration const& configuration,
                   std::vector<Quillon::Tessarine::Ozf::ConfigurationProblem> const& problems);

} // namespace tqdiscoctl
