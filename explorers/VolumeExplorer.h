// "volume": the block devices, produced when somebody asks.

#pragma once

#include "discovery/Explorer.h"
#include "discovery/ExplorerFacts.h"
#include "explorers/VolumeCollector.h"

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* VOLUME = "volume";

Facts<Volume> volumeFacts();

// The volumes that the filter parameters ask for; all of them when filterText
// is empty, asks for nothing in particular or, with a log line, cannot be
// understood: a reader then gets more than it wanted, but misses nothing.
std::vector<Volume> selectVolumes(std::vector<Volume> all, char const* filterText);

// Keeps nothing between requests, so any number of them may run at a time.
class VolumeExplorer : public virtual ExplorerPull
{
public:
  explicit VolumeExplorer(std::string root = "/");

  char const* getExplorerName() const override { return VOLUME; }

  // A request for filter data is answered with it; every other one, also one
  // that does not say (from another host), with the volumes.
  bool collectionRequested(DiscoveryQuery query, Authority const& authority, Subject const& subject,
                           AutoDereference<OZFRefCounted>& context, char const* filterText,
                           CollectionData* target) override;

private:
  std::string const m_root;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
