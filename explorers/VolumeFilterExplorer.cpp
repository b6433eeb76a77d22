#include "explorers/VolumeFilterExplorer.h"

#include "explorers/FilterDescriptions.h"
#include "explorers/Payload.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

DiscoveryStatus VolumeFilterExplorer::run(Authority const& authority, Subject const& subject,
                                          CollectionAttributes const& attributes,
                                          DiscoveryFactory const& factory)
{
  return store(factory, DQ_FILTER_DATA, subject, filterAuthority(authority), attributes,
               filterDocument(volumeFacts()), "VolumeFilterExplorer::explore");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
