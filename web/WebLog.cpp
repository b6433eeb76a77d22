#include "web/WebLog.h"

#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ProgramLog.h"

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr int ORIGINATOR = 4;

} // namespace

OzfLogger* getWebLogger()
{
  static OzfLogger* const logger = LoggerFactory::getLogger(ORIGINATOR);
  return logger;
}

void setUpWebLog(Configuration const& configuration, int level)
{
  setUpProgramLog(configuration, configKey("WEB_LOG_FILE"), "tqdiscoweb", level, getWebLogger());
}

} // namespace Web
