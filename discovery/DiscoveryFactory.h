// How explorers create discoveries.

#pragma once

#include "discovery/DiscData.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class TQ_EXPORT DiscoveryFactory
{
public:
  virtual ~DiscoveryFactory() = default;

  // Releases what discovery held and makes it a new record, with copies of the
  // parts, in the store that this host writes to: the local database on the
  // master's generic service, the master's everywhere else. Nothing is stored
  // before the record is opened, written and persisted; that is also where
  // the disk, or the master, is waited for. Any thread.
  virtual void newDiscovery(AutoDereference<Discovery>& discovery, DiscoveryQuery query,
                            Subject const& subject, Authority const& authority,
                            CollectionAttributes const& attributes) const = 0;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
