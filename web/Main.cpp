// tqdiscoweb: the gateway to the discoveries for browsers and programs without CORBA.

#include "ozf/base/Display.h"
#include "ozf/base/FreeMemory.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/orb/Orb.h"
#include "ozf/xml/XmlDocumentInterface.h"
#include "tools/Output.h"
#include "tools/Program.h"
#include "tools/Research.h"
#include "web/HttpServer.h"
#include "web/ListPolling.h"
#include "web/Options.h"
#include "web/WebLog.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <vector>

namespace
{

using namespace Web;
using namespace Quillon::Tessarine::Ozf;

constexpr char SOURCE[] = "Main";

int checkConfiguration()
{
  auto const configuration = Configuration::read(getConfigurationPath());
  auto problems = configuration.check();
  Settings::from(configuration, problems);
  return tqdiscoctl::printProblems(configuration, problems);
}

int failStart(std::string const& reason)
{
  OZF_LOG(getWebLogger(), 1, SOURCE, "main", reason);
  std::fprintf(stderr, "tqdiscoweb: %s\n", onOneLine(reason).c_str());
  sd_notify(0, ("STATUS=Start failed: " + onOneLine(reason)).c_str());
  return tqdiscoctl::PROGRAM_START_FAILED;
}

void setUpLog(Options const& options)
{
  if (options.debug)
    LoggerFactory::setLevel(6);
  else
    setUpWebLog(Configuration::read(getConfigurationPath()), options.logLevel);
}

// A number that no process before had, so that clients know whose events they have met.
std::string epochOfEvents()
{
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  char text[32];
  std::snprintf(text, sizeof text, "%llx%05x", static_cast<unsigned long long>(now.tv_sec),
                static_cast<unsigned>(now.tv_nsec) >> 12U);
  return text;
}

std::string placeOf(Settings const& settings)
{
  if (!settings.listen.path.empty())
    return settings.listen.path;
  std::string const& address = settings.listen.address;
  return (settings.certificate.empty() ? "http://" : "https://") +
         (address.find(':') == std::string::npos ? address : '[' + address + ']') + ':' +
         std::to_string(settings.listen.port) + '/';
}

// For awaitStop.
std::function<void(std::string const&)> teller(Options const& options)
{
  return [&options](std::string const& text)
  {
    if (text.empty())
      setUpLog(options);
    OZF_LOG(getWebLogger(), 1, SOURCE, "main", (text.empty() ? "Set the log up anew" : text));
  };
}

// What is wrong when that is nothing but that no master is named; else empty.
std::string lackOfMasters(Configuration const& configuration)
{
  std::vector<ConfigurationProblem> problems;
  if (!Settings::from(configuration, problems).masters.empty() || problems.size() != 1)
    return {};
  return (configuration.readable() ? problems : configuration.problems()).front().text();
}

// Waits while no master is named, as in a fresh installation: to end would have the service
// manager start it again and again. False when a signal ends the wait before.
bool awaitMasters(Options const& options)
{
  constexpr std::chrono::seconds BETWEEN_LOOKS(2);
  for (std::string lack; !(lack = lackOfMasters(*getConfiguration())).empty();)
  {
    OZF_LOG(getWebLogger(), 1, SOURCE, "main", "Waiting for a master: " << lack);
    sd_notify(0, ("READY=1\nSTATUS=Waiting for a master: " + onOneLine(lack)).c_str());
    do
    {
      if (tqdiscoctl::awaitStop(teller(options), BETWEEN_LOOKS))
        return false;
    } while (lackOfMasters(Configuration::read(getConfigurationPath())) == lack);
    reloadConfiguration();
    setUpLog(options);
  }
  return true;
}

int run(Options const& options)
{
  umask(027);
  returnLargeBlocks();
  initializeXml();
  setUpLog(options);
  tqdiscoctl::setTeller([](std::string const& text)
                        { OZF_LOG(getWebLogger(), 4, SOURCE, "main", text); });
  if (!awaitMasters(options))
    return tqdiscoctl::PROGRAM_ORDERLY;
  std::vector<ConfigurationProblem> problems;
  Settings const settings = Settings::from(*getConfiguration(), problems);
  if (!problems.empty())
    return failStart(problems.front().text());
  StaticFiles page;
  if (std::string error; !page.read(options.page, error))
    OZF_LOG(getWebLogger(), 1, SOURCE, "main", "There is no page, only the API: " << error);

  tqdiscoctl::Research research;
  if (std::string error; !research.start("tqdiscoweb", error))
    return failStart(error);
  research.orb()->setRequestTimeout(
      ACE_Time_Value(std::min<time_t>(LONGEST_CALL.count(), settings.requestTime)));

  EventLog events(epochOfEvents());
  KeptList list(settings.masters, events);
  ListAnswers lists(list, settings.kept);
  ReadAnswers reads(list, {settings.payload, settings.kept});
  MetricsAnswers const metrics(list);
  Router const router(lists, reads, metrics, page);
  EventStreams streams(events, list, settings.eventStreams);
  HttpServer server(settings, router, streams);
  ListPolling polling(list, {settings.interval, settings.share});
  if (std::string error; !server.start(error))
    return failStart(error);
  polling.start();
  std::string const place = placeOf(settings);
  OZF_LOG(getWebLogger(), 1, SOURCE, "main", "Started, version " TQ_VERSION ", at " << place);
  sd_notify(0, ("READY=1\nSTATUS=Serving at " + onOneLine(place)).c_str());
  tqdiscoctl::Research::awaitStop(teller(options));
  sd_notify(0, "STOPPING=1\nSTATUS=Stopping");
  server.stop();
  OZF_LOG(getWebLogger(), 1, SOURCE, "main", "Stopped");
  return tqdiscoctl::PROGRAM_ORDERLY;
}

} // namespace

int main(int argc, char** argv)
{
  tqdiscoctl::takeSignals();
  try
  {
    Options options;
    int exitCode = tqdiscoctl::PROGRAM_ORDERLY;
    if (!parseOptions(argc, argv, options, exitCode))
      return exitCode;
    exitCode = options.checkConfiguration ? checkConfiguration() : run(options);
    LoggerFactory::flush();
    return exitCode;
  }
  catch (std::exception const& exception)
  {
    std::fprintf(stderr, "tqdiscoweb: %s\n", onOneLine(exception.what()).c_str());
    return tqdiscoctl::PROGRAM_START_FAILED;
  }
}
