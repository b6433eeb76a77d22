// What --help prints, and what is said of a command line that is wrong.

#pragma once

namespace CLI
{
class App;
class ParseError;
} // namespace CLI

namespace tqdiscoctl
{

// Lays the help texts of the application and of all its commands out for the
// terminal. After all commands have been added.
void setUpHelp(CLI::App& application);

// Tells the user what is wrong and which help text has more. The exit code,
// also for the "errors" that stand for --help and --version.
int reportUsage(CLI::App const& application, CLI::ParseError const& error);

} // namespace tqdiscoctl
