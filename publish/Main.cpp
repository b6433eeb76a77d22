// tqpublish: keeps a PostgreSQL database current with what masters know.

#include "ozf/base/Display.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/config/ProgramLog.h"
#include "ozf/orb/Orb.h"
#include "ozf/xml/XmlDocumentInterface.h"
#include "publish/Options.h"
#include "publish/PublishLog.h"
#include "publish/Publisher.h"
#include "publish/Retention.h"
#include "tools/Output.h"
#include "tools/Program.h"
#include "tools/Research.h"

#include <cstdio>
#include <exception>
#include <iostream>
#include <malloc.h>
#include <string>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <thread>
#include <vector>

namespace
{

using namespace Publish;
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
  OZF_LOG(getPublishLogger(), 1, SOURCE, "main", reason);
  std::fprintf(stderr, "tqpublish: %s\n", onOneLine(reason).c_str());
  sd_notify(0, ("STATUS=" + onOneLine(reason)).c_str());
  return tqdiscoctl::PROGRAM_START_FAILED;
}

void setUpLog(Options const& options)
{
  if (options.debug)
    LoggerFactory::setLevel(6);
  else
    setUpProgramLog(Configuration::read(getConfigurationPath()), configKey("PUBLISH_LOG_FILE"),
                    "tqpublish", options.logLevel, getPublishLogger());
}

// Until a signal says that it is enough, or the work ends.
void awaitEnd(Options const& options)
{
  tqdiscoctl::Research::awaitStop(
      [&options](std::string const& text)
      {
        if (text.empty())
          setUpLog(options);
        OZF_LOG(getPublishLogger(), 1, SOURCE, "main",
                (text.empty() ? "Set the log up anew" : text));
      });
}

int follow(Options const& options)
{
  umask(027);
  // Each thread would keep memory of its own, and there are some dozens.
  mallopt(M_ARENA_MAX, 2);
  initializeXml();
  setUpLog(options);
  tqdiscoctl::setTeller([](std::string const& text)
                        { OZF_LOG(getPublishLogger(), 4, SOURCE, "main", text); });
  std::vector<ConfigurationProblem> problems;
  Settings const settings = Settings::from(*getConfiguration(), problems);
  if (!problems.empty())
    return failStart(problems.front().text());
  tqdiscoctl::Research research;
  if (std::string error; !research.start("tqpublish", error))
    return failStart(error);
  constexpr long LONGEST_CALL = 10; // seconds
  research.orb()->setRequestTimeout(ACE_Time_Value(LONGEST_CALL));

  OZF_LOG(getPublishLogger(), 1, SOURCE, "main", "Started, version " TQ_VERSION);
  sd_notify(0, "READY=1\nSTATUS=Following");
  Stop stop;
  std::string complaint;
  std::thread work(
      [&]
      {
        complaint = guarded(
            [&]
            {
              Publisher publisher(settings, stop,
                                  [](std::string const& text)
                                  { sd_notify(0, ("STATUS=" + text).c_str()); });
              return publisher.run(options.once);
            });
        tqdiscoctl::endAwaitStop();
      });
  awaitEnd(options);
  sd_notify(0, "STOPPING=1\nSTATUS=Stopping");
  stop.request();
  work.join();
  if (!complaint.empty())
    return failStart("Stopped: " + complaint);
  OZF_LOG(getPublishLogger(), 1, SOURCE, "main", "Stopped");
  return tqdiscoctl::PROGRAM_ORDERLY;
}

int useDatabase(Options const& options)
{
  Database database;
  if (options.task == Options::MIGRATE)
  {
    if (std::string const complaint = migrate(database, options.writer, options.reader);
        !complaint.empty())
    {
      std::fprintf(stderr, "tqpublish: %s\n", onOneLine(complaint).c_str());
      return tqdiscoctl::PROGRAM_START_FAILED;
    }
    std::printf("The schema is of version %d.\n", knownSchemaVersion());
    return tqdiscoctl::PROGRAM_ORDERLY;
  }
  if (std::string const complaint = schemaComplaint(database.schemaVersion()); !complaint.empty())
  {
    std::fprintf(stderr, "tqpublish: %s\n", onOneLine(complaint).c_str());
    return tqdiscoctl::PROGRAM_START_FAILED;
  }
  std::vector<ConfigurationProblem> problems;
  printUsage(database, Settings::from(*getConfiguration(), problems).historyDays, std::cout);
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
    exitCode = options.checkConfiguration        ? checkConfiguration()
               : options.task == Options::FOLLOW ? follow(options)
                                                 : useDatabase(options);
    LoggerFactory::flush();
    return exitCode;
  }
  catch (std::exception const& failure)
  {
    std::fprintf(stderr, "tqpublish: %s\n", failureText(failure).c_str());
    return tqdiscoctl::PROGRAM_START_FAILED;
  }
}
