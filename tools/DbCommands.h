// tqdiscoctl db: the database directory without a service.

#pragma once

#include <memory>

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

// Adds "db" with its commands to the application. The command that the user
// chose runs while the command line is parsed and leaves its exit code in
// exitCode.
void addDbCommands(CLI::App& application, int& exitCode);

} // namespace tqdiscoctl
