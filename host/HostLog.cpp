#include "host/HostLog.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"
#include "ozf/log/AuditLog.h"
#include "ozf/log/Logger.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace Host
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "HostLog";
constexpr int ORIGINATOR = 2;
constexpr std::size_t MOST_LINES = 20;

std::atomic<bool> onStderr{true};
std::mutex linesMutex;
std::vector<std::string> startLines;

void setDestination(std::string const& destination)
{
  std::string reason;
  if (destination == "syslog")
    LoggerFactory::setSyslog("tqdisco");
  else if (destination == "stderr" || LoggerFactory::setFile(destination, reason) == false)
    LoggerFactory::setStderr();
  onStderr = destination == "stderr" || !reason.empty();
  if (!reason.empty())
    OZF_LOG(getHostLogger(), 1, SOURCE, "setUpLog",
            "Unable to open the log file " << destination << ", using standard error: " << reason);
}

} // namespace

OzfLogger* getHostLogger()
{
  static OzfLogger* const logger = LoggerFactory::getLogger(ORIGINATOR);
  return logger;
}

void setUpLog(Options const& options, Configuration const& configuration)
{
  std::vector<std::string> excepted = configuration.list(configKey("LOG_EXCEPT"));
  std::erase_if(excepted, [](std::string const& pattern) { return !isLogPattern(pattern); });
  if (options.debug)
    excepted.clear();
  LoggerFactory::setExcepted(excepted);
  if (options.debug)
  {
    LoggerFactory::setLevel(6);
    setDestination("stderr");
    return;
  }
  LoggerFactory::setLevel(options.logLevel >= 0
                              ? options.logLevel
                              : static_cast<int>(configuration.number(configKey("LOG_LEVEL"))));
  setDestination(configuration.word(configKey("LOG_FILE")));
}

void setUpAudit(Configuration const& configuration)
{
  AuditLog::setFile(configuration.word(configKey("AUDIT_FILE")));
}

StartReport::StartReport()
{
  LoggerFactory::setObserver(
      [](LogLine const& line)
      {
        std::lock_guard guard(linesMutex);
        if (line.level == 1 && !onStderr && startLines.size() < MOST_LINES)
          startLines.push_back(line.text);
      });
}

StartReport::~StartReport() { LoggerFactory::setObserver({}); }

void StartReport::print() const
{
  std::lock_guard guard(linesMutex);
  for (auto const& line : startLines)
    std::fprintf(stderr, "tqdisco: %s\n", line.c_str());
}

} // namespace Host
