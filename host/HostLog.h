// The log as the command line and the configuration want it.

#pragma once

#include "host/Options.h"

namespace Quillon::Tessarine::Ozf
{
class Configuration;
class OzfLogger;
} // namespace Quillon::Tessarine::Ozf

namespace Host
{

// The originator number of the service host's own log lines.
Quillon::Tessarine::Ozf::OzfLogger* getHostLogger();

// Sets level and destination. What the command line says goes before the
// configuration; values that cannot be used are passed over, a log file that
// cannot be opened is reported at level 1 and standard error used instead.
void setUpLog(Options const& options, Quillon::Tessarine::Ozf::Configuration const& configuration);

// Sets the file of the audit log, opened anew. The service serves without one that
// cannot be opened.
void setUpAudit(Quillon::Tessarine::Ozf::Configuration const& configuration);

// Keeps the level 1 lines written while it lives, so that a failed start can
// be told on standard error also when the log is elsewhere.
class StartReport
{
public:
  StartReport();
  ~StartReport();
  StartReport(StartReport const&) = delete;
  StartReport& operator=(StartReport const&) = delete;

  void print() const;
};

} // namespace Host
