// The logger under which the framework's own rooms write.

#pragma once

#include "ozf/log/Logger.h"

namespace Quillon::Tessarine::Ozf
{

constexpr int FRAMEWORK_ORIGINATOR = 1;

inline OzfLogger* getFrameworkLogger()
{
  static OzfLogger* const logger = LoggerFactory::getLogger(FRAMEWORK_ORIGINATOR);
  return logger;
}

} // namespace Quillon::Tessarine::Ozf
