// The servant behind the name "DiscoveryService".
//
// What comes from the network is checked before it is used: names that are
// empty where one is needed, or longer than MAX_WIRE_NAME bytes (MAX_KEPT_NAME,
// where they are to be kept), are answered with a status, a query with
// COMM_FAILURE, and a registration is dropped with a line. A peer that has as many
// iterators as it may have, or has stored enough for a day, meets NO_RESOURCES before
// anything is made.

#pragma once

#include "discovery/DiscData.h"
#include "discovery/Export.h"
#include "discovery/PeerLimits.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/orb/Corba.h"

#include <DiscoveryServiceC.h>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

class RemoteWriter_i;

// Keeps no state: everything is in the repository. Any number of threads.
class TQ_EXPORT DiscoveryService_i
    : public POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService
{
public:
  DiscoveryIterator_ptr queryDiscoveries(DiscoveryQuery queryType, AuthorityType authType,
                                         char const* subject, char const* authority) override;
  DiscoveryStatus getCollectionData(Discovery const& record, char const* filter,
                                    CollectionDataIterator_out iterator) override;
  DiscoveryResult putCollection(Discovery const& record, RemoteWriter_out writer) override;
  void registerExplorer(char const* sourceHost, char const* sourceServiceName, char const* subject,
                        char const* authority, AuthorityType authType,
                        CORBA::Short priority) override;
  CORBA::Boolean terminate() override;
  void restartLocalPushTimer() override;
  CORBA::Boolean restartAllPushTimers() override;

protected:
  // Opens the discovery for reading and hands out an iterator over its collection,
  // which has the place.
  static DiscoveryStatus
  serve(AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>& discovery,
        char const* filter, PeerPlace place, AuditedCall const& call,
        CollectionDataIterator_out iterator);

  // A new writer for the record, with one reference for the caller.
  virtual RemoteWriter_i* newRemoteWriter(Discovery const& record) const;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
