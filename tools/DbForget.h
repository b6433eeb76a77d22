// tqdiscoctl db forget: takes discoveries out of a database directory.

#pragma once

#include <memory>
#include <string>

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

// Adds "forget" to the commands of db. The directory is read when the command
// runs, which leaves its exit code in exitCode.
void addForgetCommand(CLI::App& db, std::shared_ptr<std::string const> const& directory,
                      int& exitCode);

} // namespace tqdiscoctl
