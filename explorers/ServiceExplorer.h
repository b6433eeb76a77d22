// "service": the discovery service of this host, every minute.

#pragma once

#include "discovery/ExplorerFacts.h"
#include "explorers/ServiceCollector.h"
#include "discovery/TimedExplorer.h"
#include "ozf/config/ConfigurationKeys.h"

#include <functional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* SERVICE = "service";

Facts<ServiceState> serviceFacts();
Facts<ExplorerState> explorerFacts();
Facts<MetLimit> limitFacts();
Facts<Clone> cloneFacts();

// Stores one item for the service, named after the subject, one for each explorer on
// this host but itself, since that it runs shows from what it stores, one for each limit
// that was met, named after its key, and one for each name under which several machines
// report, named so. All four vocabularies are its filter data.
class ServiceExplorer : public TimedExplorer
{
public:
  static constexpr PollingInterval INTERVAL = configKey("EXPLORER_INTERVAL.").numberOf("service");

  using Collect = std::function<ServiceState()>;
  explicit ServiceExplorer(Collect collect);

  char const* getExplorerName() const override { return SERVICE; }

private:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override;

  Collect const m_collect;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
