#include "discovery/DiscoveryLog.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

OzfLogger* getOzfLogger()
{
  static OzfLogger* const logger = LoggerFactory::getLogger(DISCOVERY_ORIGINATOR);
  return logger;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
