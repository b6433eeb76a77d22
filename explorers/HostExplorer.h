// "host": what kind of machine this is, every hour.

#pragma once

#include "discovery/ExplorerFacts.h"
#include "explorers/HostCollector.h"
#include "discovery/TimedExplorer.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* HOST = "host";

Facts<HostFacts> hostFacts();

// Stores one item, named after the subject, and, under the authorities for them, what
// can be asked of it, and that this machine is it.
class HostExplorer : public TimedExplorer
{
public:
  static constexpr PollingInterval INTERVAL = configKey("EXPLORER_INTERVAL.").numberOf("host");

  explicit HostExplorer(std::string root = "/", Secrets secrets = Secrets::LeftOut);

  char const* getExplorerName() const override { return HOST; }
  Secrets secrets() const noexcept { return m_secrets; }

private:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override;

  std::string const m_root;
  Secrets const m_secrets;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
