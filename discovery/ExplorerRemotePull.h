// The explorer that stands for a pull explorer on another host.

#pragma once

#include "discovery/DiscoveryLoopGuard.h"
#include "discovery/Explorer.h"
#include "ozf/base/OzfHostname.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Asks the discovery service of the other host and copies what it has. Keeps
// no state between calls, so that threads may call it at the same time; a call
// blocks for several request time-outs at worst.
//
// The host that it names may turn out to be this one, or one that asks this one
// in turn: then each request causes the next before it ends. More than 20 in
// progress are taken for that, and refused.
class TQ_EXPORT RemoteExplorerPull : public virtual ExplorerPull
{
public:
  // The service and its host; the two names are kept for the registration
  // alone; type is the authority type under which the other host is asked.
  RemoteExplorerPull(OzfString const& serviceName, OzfString const& host,
                     OzfString const& registrationName1, OzfString const& registrationName2,
                     AuthorityType type);

  char const* getExplorerName() const override;

  // True when exactly one discovery of the other host matches and its payload
  // was read to the end. Whether target took all of it is not looked at: what
  // failed to be written is passed over, and target's to tell. After a failure
  // target may be partly written.
  bool collectionRequested(DiscoveryQuery query, Authority const& authority, Subject const& subject,
                           AutoDereference<OZFRefCounted>& context, char const* filterText,
                           CollectionData* target) override;

  OzfString const& getServiceName() const noexcept { return m_serviceName; }
  OzfString const& getRegistrationName1() const noexcept { return m_registrationName1; }
  OzfString const& getRegistrationName2() const noexcept { return m_registrationName2; }
  AuthorityType getAuthorityType() const noexcept { return m_authorityType; }
  OzfHostname const& getHost() const noexcept { return m_host; }

private:
  bool copyCollection(DiscoveryQuery query, Authority const& authority, Subject const& subject,
                      char const* filterText, CollectionData& target) const;

  OzfString m_serviceName;
  OzfString m_registrationName1;
  OzfString m_registrationName2;
  AuthorityType m_authorityType;
  OzfHostname m_host;
  LoopCounter m_inProgress;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
