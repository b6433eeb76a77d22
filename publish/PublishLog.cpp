#include "publish/PublishLog.h"

namespace Publish
{

using namespace Quillon::Tessarine::Ozf;

OzfLogger* getPublishLogger()
{
  constexpr int ORIGINATOR = 5;
  static OzfLogger* const logger = LoggerFactory::getLogger(ORIGINATOR);
  return logger;
}

} // namespace Publish
