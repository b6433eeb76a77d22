#include "discovery/TimedExplorer.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"

#include <exception>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{
constexpr char SOURCE[] = "TimedExplorer";
constexpr char OPERATION[] = "TimedExplorer::explore";

// 0 where nothing is said.
PollingInterval configuredSeconds(ConfigurationKey const& key, char const* explorer)
{
  return static_cast<PollingInterval>(getConfiguration()->seconds(key, explorer));
}

} // namespace

CollectionAttributes withExpiry(CollectionAttributes const& attributes, PollingInterval expiry)
{
  if (expiry == 0)
    return attributes;
  return CollectionAttributes(
      attributes.getType(), attributes.getStorage(), attributes.getDiscoveryTime(),
      OzfObjTime(static_cast<std::int64_t>((expiry * 4 + 4) / 5)), attributes.getPriority());
}

PollingInterval TimedExplorer::getPollingInterval()
{
  PollingInterval const configured =
      configuredSeconds(configKey("EXPLORER_INTERVAL."), getExplorerName());
  return configured != 0 ? configured : m_interval;
}

void TimedExplorer::explore(Authority const& authority, Subject const& subject,
                            CollectionAttributes const& attributes, AutoDereference<OZFRefCounted>&,
                            DiscoveryFactory* factory, DiscoveryResult& result)
{
  PollingInterval const interval = getPollingInterval();
  result.discStatus = DS_LOGIC_ERROR;
  result.retryInterval = interval;
  try
  {
    if (factory == nullptr)
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Explorer " << getExplorerName() << " was given no way to create discoveries");
    else
      result.discStatus =
          run(authority, subject,
              withExpiry(attributes,
                         configuredSeconds(configKey("EXPLORER_EXPIRY."), getExplorerName())),
              *factory);
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Explorer " << getExplorerName() << " failed: " << exception.what());
  }
  catch (...)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Explorer " << getExplorerName() << " failed");
  }
  if (isSuccess(result))
    result.retryInterval = 0;
  else if (result.discStatus != DS_DATA_EXISTS && interval > RETRY)
  {
    // The master may be away. Nobody looks at the result's interval, so the
    // next run is brought about by what this explorer says of its last.
    result.retryInterval = RETRY;
    std::lock_guard const guard(m_mutex);
    OzfObjTime const ahead(static_cast<std::int64_t>(interval - RETRY));
    if (m_lastExploration > ahead)
      m_lastExploration = OzfObjTime(m_lastExploration.seconds() - ahead.seconds(),
                                     m_lastExploration.microseconds());
  }
}

OzfObjTime TimedExplorer::getLastExplorationTime()
{
  std::lock_guard const guard(m_mutex);
  return m_lastExploration;
}

void TimedExplorer::setLastExplorationTime(OzfObjTime const& time)
{
  std::lock_guard const guard(m_mutex);
  m_lastExploration = time;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
