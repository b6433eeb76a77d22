#include "explorers/VolumeFilterExplorer.h"

#include "discovery/FilterDataName.h"

#include "discovery/ExplorerPayload.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

DiscoveryStatus VolumeFilterExplorer::run(Authority const& authority, Subject const& subject,
                                          CollectionAttributes const& attributes,
                                          DiscoveryFactory const& factory)
{
  Authority const stored(authority.getName().str() + FILTER_DATA_SUFFIX, AT_EXTSRC);
  return store(factory, DQ_FILTER_DATA, subject, stored, attributes, filterDocument(volumeFacts()),
               "VolumeFilterExplorer::explore");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
