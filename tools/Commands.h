// The commands that ask a running service.
//
// Each function adds commands to the application. The command that the user
// chose runs while the command line is parsed and leaves its exit code in the
// session.

#pragma once

#include "tools/Connection.h"
#include "tools/ExitCodes.h"

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

struct Session
{
  ConnectionOptions connection;
  int exitCode = EXIT_DONE;
};

void addQueryCommands(CLI::App& application, Session& session);    // query, hosts
void addShowCommands(CLI::App& application, Session& session);     // show, filters
void addItemsCommand(CLI::App& application, Session& session);     // items
void addWatchCommand(CLI::App& application, Session& session);     // watch
void addPutCommand(CLI::App& application, Session& session);       // put
void addControlCommands(CLI::App& application, Session& session);  // push, stop
void addExplorerCommands(CLI::App& application, Session& session); // explorer
void addExplorerTestCommand(CLI::App& group, Session& session);    // explorer test
void addStatusCommand(CLI::App& application, Session& session);    // status
void addMetricsCommand(CLI::App& application, Session& session);   // metrics
void addReportCommand(CLI::App& application, Session& session);    // report
void addWhichMasterCommand(CLI::App& application, Session& session);
void addSqlCommand(CLI::App& application, Session& session); // sql

} // namespace tqdiscoctl
