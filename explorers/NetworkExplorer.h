// "network": the network interfaces and name servers, every five minutes.

#pragma once

#include "discovery/ExplorerFacts.h"
#include "explorers/NetworkCollector.h"
#include "discovery/TimedExplorer.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* NETWORK = "network";

Facts<NameService> nameServiceFacts();
Facts<NetworkInterface> interfaceFacts();

// Stores one item for the host, named after the subject, and one for each interface,
// named after it. Both vocabularies are its filter data.
class NetworkExplorer : public TimedExplorer
{
public:
  static constexpr PollingInterval INTERVAL = configKey("EXPLORER_INTERVAL.").numberOf("network");

  explicit NetworkExplorer(std::string root = "/", ReadAddresses addresses = readAddresses);

  char const* getExplorerName() const override { return NETWORK; }

private:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override;

  std::string const m_root;
  ReadAddresses const m_addresses;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
