// "host": what kind of machine this is, every hour.

#pragma once

#include "explorers/Facts.h"
#include "explorers/HostCollector.h"
#include "explorers/TimedExplorer.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* HOST = "host";

Facts<HostFacts> hostFacts();

// Stores one item, named after the subject.
class HostExplorer : public TimedExplorer
{
public:
  static constexpr PollingInterval INTERVAL = configKey("EXPLORER_INTERVAL.").numberOf("host");

  explicit HostExplorer(std::string root = "/");

  char const* getExplorerName() const override { return HOST; }

private:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override;

  std::string const m_root;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
