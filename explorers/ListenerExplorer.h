// "listener": the sockets on which the host waits for others, every five minutes.

#pragma once

#include "discovery/ExplorerFacts.h"
#include "explorers/ListenerCollector.h"
#include "discovery/TimedExplorer.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* LISTENER = "listener";

Facts<Listener> listenerFacts();

// Stores the listeners and, under the authority for it, what can be asked of them.
class ListenerExplorer : public TimedExplorer
{
public:
  static constexpr PollingInterval INTERVAL = configKey("EXPLORER_INTERVAL.").numberOf("listener");

  explicit ListenerExplorer(std::string root = "/");

  char const* getExplorerName() const override { return LISTENER; }

private:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override;

  std::string const m_root;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
