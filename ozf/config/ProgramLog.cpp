#include "ozf/config/ProgramLog.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

void setUpProgramLog(Configuration const& configuration, ConfigurationKey const& destination,
                     char const* name, int level, OzfLogger* logger)
{
  std::vector<std::string> excepted = configuration.list(configKey("LOG_EXCEPT"));
  std::erase_if(excepted, [](std::string const& pattern) { return !isLogPattern(pattern); });
  LoggerFactory::setExcepted(excepted);
  LoggerFactory::setLevel(
      level >= 0 ? level : static_cast<int>(configuration.number(configKey("LOG_LEVEL"))));
  std::string const place = configuration.word(destination);
  std::string reason;
  if (place == "syslog")
    LoggerFactory::setSyslog(name);
  else if (place == "stderr" || !LoggerFactory::setFile(place, reason))
    LoggerFactory::setStderr();
  if (!reason.empty())
    OZF_LOG(logger, 1, "ProgramLog", "setUpProgramLog",
            "Unable to open the log file " << place << ", using standard error: " << reason);
}

} // namespace Quillon::Tessarine::Ozf
