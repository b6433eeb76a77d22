// "volume" again: what can be asked of volumes, once a day.

#pragma once

#include "discovery/TimedExplorer.h"
#include "explorers/VolumeExplorer.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Filter data is pushed also where the data itself is pulled: a record does
// not carry the kind of query over the wire, so another host can never ask a
// pull explorer for it. Nor can a stored collection be read from another host
// when a pull explorer of the same subject and authority is there, whatever
// type it has: so it is stored under a name of its own, "volume-filter".
class VolumeFilterExplorer : public TimedExplorer
{
public:
  static constexpr PollingInterval INTERVAL = configKey("EXPLORER_INTERVAL.").numberOf("volume");

  VolumeFilterExplorer() : TimedExplorer(INTERVAL) {}

  char const* getExplorerName() const override { return VOLUME; }

private:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
