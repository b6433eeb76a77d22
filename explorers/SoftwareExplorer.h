// "software": the installed packages, every six hours.

#pragma once

#include "discovery/ExplorerFacts.h"
#include "explorers/SoftwareCollector.h"
#include "discovery/TimedExplorer.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* SOFTWARE = "software";

Facts<Software> softwareFacts();
Facts<Package> packageFacts();

// Stores one item for the host, named after the subject, and one for each package, named
// after it. Both vocabularies are its filter data.
class SoftwareExplorer : public TimedExplorer
{
public:
  static constexpr PollingInterval INTERVAL = configKey("EXPLORER_INTERVAL.").numberOf("software");

  explicit SoftwareExplorer(std::string root = "/", QueryRpm rpm = queryRpm);

  char const* getExplorerName() const override { return SOFTWARE; }

private:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override;

  std::string const m_root;
  QueryRpm const m_rpm;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
