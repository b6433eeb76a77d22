// The servant behind the name OWN_COLLECTIONS: what this process alone can give.
//
// Who asks the service for a collection on demand gets it only while no other
// entry of the registry comes after it, and never what the service tells of its
// own state. Here a collection is asked for by its exact names, and it is one of
// this process's own explorers, or the state under ANNOUNCEMENT_AUTHORITY or
// EXPLORERS_AUTHORITY.

#pragma once

#include "discovery/DiscoveryService_i.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

// Everything but the collections is the service's.
class TQ_EXPORT OwnCollections_i : public DiscoveryService_i
{
public:
  DiscoveryStatus getCollectionData(Discovery const& record, char const* filter,
                                    CollectionDataIterator_out iterator) override;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
