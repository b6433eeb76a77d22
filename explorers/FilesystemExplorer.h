// "filesystem": the mounted file systems, every five minutes.

#pragma once

#include "explorers/FilesystemCollector.h"
#include "discovery/ExplorerFacts.h"
#include "discovery/TimedExplorer.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* FILESYSTEM = "filesystem";

Facts<Filesystem> filesystemFacts();

// Stores the file systems and, under the authority for it, what can be asked
// of them.
class FilesystemExplorer : public TimedExplorer
{
public:
  static constexpr PollingInterval INTERVAL =
      configKey("EXPLORER_INTERVAL.").numberOf("filesystem");

  explicit FilesystemExplorer(std::string root = "/", SpaceProbe probe = SpaceProbe());

  char const* getExplorerName() const override { return FILESYSTEM; }

private:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override;

  std::string const m_root;
  SpaceProbe m_probe;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
