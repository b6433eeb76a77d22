// tqdisco, the service host: brings the service of this host up, runs it until
// it is told to stop, and takes it down.

#include "host/ConfigurationDump.h"
#include "host/HostLog.h"
#include "host/ManagerStatus.h"
#include "host/Options.h"
#include "host/ServiceLibrary.h"
#include "host/SignalThread.h"
#include "host/StartCheck.h"
#include "host/Watchdog.h"
#include "ozf/base/Display.h"
#include "ozf/base/FileOwner.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/log/Logger.h"
#include "ozf/orb/OrbService.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <sys/stat.h>
#include <string>
#include <vector>

namespace
{

using namespace Host;
using namespace Quillon::Tessarine::Ozf;

constexpr char SOURCE[] = "main";

// Whether there are none. They go to standard error.
bool printMistakes(Configuration const& configuration)
{
  auto const problems = checkForService(configuration);
  for (auto const& problem : problems)
    std::fprintf(stderr, "%s\n", onOneLine(problem.text()).c_str());
  return problems.empty();
}

int checkConfiguration()
{
  auto const configuration = Configuration::read(getConfigurationPath());
  if (!printMistakes(configuration))
    return EXIT_USAGE;
  for (auto const& path : configuration.files())
    std::printf("%s: no mistakes\n", onOneLine(path).c_str());
  return EXIT_ORDERLY;
}

int dumpConfiguration(bool asJson)
{
  auto const configuration = Configuration::read(getConfigurationPath());
  std::string const text = asJson ? settingsAsJson(configuration) : settingsAsTable(configuration);
  std::fwrite(text.data(), 1, text.size(), stdout);
  return printMistakes(configuration) ? EXIT_ORDERLY : EXIT_USAGE;
}

// Gone as soon as the service serves.
std::optional<StartReport> startReport;

// While the service runs.
std::optional<Watchdog> watchdog;

void ready()
{
  startReport.reset();
  std::string error;
  if (!watchdog->start(OrbService::Instance()->getServiceName(), error))
    OZF_LOG(getHostLogger(), 1, SOURCE, "main", error);
  tellReady();
  OZF_LOG(getHostLogger(), 1, SOURCE, "main", "Started, version " TQ_VERSION);
}

void stopping()
{
  watchdog->serviceStops();
  tellStopping();
}

int failStart(std::string const& reason, int exitCode = EXIT_START_FAILED)
{
  OZF_LOG(getHostLogger(), 1, SOURCE, "main", reason);
  if (startReport)
    startReport->print();
  tellManager("Start failed: " + reason);
  return exitCode;
}

// Whoever may write there decides what this service does.
void tellOfOtherWriters()
{
  std::string const root = getProductRoot();
  std::vector<std::string> paths = {root, root + "/etc", root + "/db"};
  paths.push_back(getConfigurationPath() + ".d");
  for (std::string const& path : getConfiguration()->files())
    paths.push_back(path);
  for (std::string const& path : paths)
  {
    struct stat status = {};
    std::string reason;
    if (stat(path.c_str(), &status) == 0 && !isOnlyOurs(path, status, reason))
      OZF_LOG(getHostLogger(), 1, SOURCE, "main", "Others may change this service: " << reason);
  }
}

// It is no failure of the start: the configuration may be mended later.
void tellOfMissingMaster()
{
  if (getConfiguration()->find(configKey("SERVER")) != nullptr)
    return;
  std::string const text = "SERVER is missing in " + getConfigurationPath();
  OZF_LOG(getHostLogger(), 1, SOURCE, "main", text << ": nothing is reported to any master");
  tellLacking(text);
}

// The exit code, after telling of it.
int conclude(OrbService::Outcome outcome, bool started, OrbService const& service)
{
  switch (outcome)
  {
  case OrbService::ORDERLY:
    // To a service manager an end before READY is a failed start.
    if (!started)
      tellReady("Not started, as the configuration says");
    OZF_LOG(getHostLogger(), 1, SOURCE, "main",
            (started ? "Stopped" : "Not started, as the configuration says"));
    return EXIT_ORDERLY;
  case OrbService::STOP_FAILED:
    return EXIT_STOP_FAILED;
  default:
    return failStart("The start of " + service.getServiceName() + " failed");
  }
}

int runService(Options const& options)
{
  // What is stored, and the log, is for the owner and the group alone.
  umask(027);
  // The library brings others in that are to be set up before there are threads.
  initializeXml();
  // The log is set up before the process's own reading of the file, which logs
  // the mistakes that it finds.
  setUpLog(options, Configuration::read(getConfigurationPath()));
  startReport.emplace();
  // Without what is there it would be another host's service, or the same at
  // another place.
  if (auto const configuration = getConfiguration();
      !configuration->readable() && !configuration->missing())
    return failStart("Not started without the configuration that is there");
  setUpAudit(*getConfiguration());
  tellOfOtherWriters();
  tellOfMissingMaster();
  if (auto const reason = whyNothingCanBeStored())
    return failStart(*reason, EXIT_NO_DATABASE);

  std::string error;
  auto const service = createService(options.debug, error);
  if (!service)
    return failStart(error);
  SignalThread signals(options);
  if (!signals.start(error))
    return failStart(error);

  tellManager("Starting");
  bool started = false;
  OrbService::Events events;
  events.ready = ready;
  events.stopping = stopping;
  events.status = tellWaiting;
  watchdog.emplace();
  auto const outcome = static_cast<OrbService::Outcome>(service->main(events, started));
  watchdog.reset();
  int const exitCode = conclude(outcome, started, *service);
  if (service->leavesThreads())
  {
    LoggerFactory::flush();
    std::_Exit(exitCode);
  }
  return exitCode;
}

} // namespace

int main(int argc, char** argv)
{
  // First of all: whoever starts a service may stop it at once.
  blockSignals();
  try
  {
    Options options;
    int exitCode = EXIT_ORDERLY;
    if (!parseOptions(argc, argv, options, exitCode))
      return exitCode;
    if (options.checkConfiguration || options.dumpConfiguration)
      exitCode =
          options.checkConfiguration ? checkConfiguration() : dumpConfiguration(options.json);
    else
      exitCode = runService(options);
    startReport.reset();
    LoggerFactory::flush();
    return exitCode;
  }
  catch (std::exception const& exception)
  {
    std::fprintf(stderr, "tqdisco: %s\n", onOneLine(exception.what()).c_str());
    return EXIT_START_FAILED;
  }
}
