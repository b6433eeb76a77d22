#include "explorers/TimedExplorer.h"

#include "discovery/DiscoveryLog.h"

#include <exception>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{
constexpr char SOURCE[] = "TimedExplorer";
constexpr char OPERATION[] = "TimedExplorer::explore";

// The attributes with an interval of which the expiry comes, which is a quarter
// longer, here and at the master.
CollectionAttributes withExpiry(CollectionAttributes const& attributes,
                                std::optional<PollingInterval> expiry)
{
  if (!expiry)
    return attributes;
  return CollectionAttributes(
      attributes.getType(), attributes.getStorage(), attributes.getDiscoveryTime(),
      OzfObjTime(static_cast<std::int64_t>((*expiry * 4 + 4) / 5)), attributes.getPriority());
}

} // namespace

void TimedExplorer::configure(std::optional<PollingInterval> interval,
                              std::optional<PollingInterval> expiry)
{
  m_interval = interval.value_or(m_interval);
  m_expiry = expiry;
}

void TimedExplorer::explore(Authority const& authority, Subject const& subject,
                            CollectionAttributes const& attributes, AutoDereference<OZFRefCounted>&,
                            DiscoveryFactory* factory, DiscoveryResult& result)
{
  result.discStatus = DS_LOGIC_ERROR;
  result.retryInterval = m_interval;
  try
  {
    if (factory == nullptr)
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Explorer " << getExplorerName() << " was given no way to create discoveries");
    else
      result.discStatus = run(authority, subject, withExpiry(attributes, m_expiry), *factory);
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
  else if (result.discStatus != DS_DATA_EXISTS && m_interval > RETRY)
  {
    // The master may be away. Nobody looks at the result's interval, so the
    // next run is brought about by what this explorer says of its last.
    result.retryInterval = RETRY;
    std::lock_guard const guard(m_mutex);
    OzfObjTime const interval(static_cast<std::int64_t>(m_interval - RETRY));
    if (m_lastExploration > interval)
      m_lastExploration = OzfObjTime(m_lastExploration.seconds() - interval.seconds(),
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
