#include "web/WebLog.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"

#include <string>
#include <vector>

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "WebLog";
constexpr int ORIGINATOR = 4;

} // namespace

OzfLogger* getWebLogger()
{
  static OzfLogger* const logger = LoggerFactory::getLogger(ORIGINATOR);
  return logger;
}

void setUpWebLog(Configuration const& configuration, int level)
{
  std::vector<std::string> excepted = configuration.list(configKey("LOG_EXCEPT"));
  std::erase_if(excepted, [](std::string const& pattern) { return !isLogPattern(pattern); });
  LoggerFactory::setExcepted(excepted);
  LoggerFactory::setLevel(
      level >= 0 ? level : static_cast<int>(configuration.number(configKey("LOG_LEVEL"))));
  std::string const destination = configuration.word(configKey("WEB_LOG_FILE"));
  std::string reason;
  if (destination == "syslog")
    LoggerFactory::setSyslog("tqdiscoweb");
  else if (destination == "stderr" || !LoggerFactory::setFile(destination, reason))
    LoggerFactory::setStderr();
  if (!reason.empty())
    OZF_LOG(getWebLogger(), 1, SOURCE, "setUpWebLog",
            "Unable to open the log file " << destination << ", using standard error: " << reason);
}

} // namespace Web
