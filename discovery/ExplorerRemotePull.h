// The explorer that stands for a pull explorer on another host.

#pragma once

#include "discovery/CallPlaces.h"
#include "discovery/Explorer.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/config/Limits.h"

#include <chrono>
#include <memory>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Asks the discovery service of the other host and copies what it has. Keeps
// no state between calls, so that threads may call it at the same time; a call
// blocks for several request time-outs at worst.
//
// The host that it names may turn out to be this one, or one that asks this one
// in turn: then each request causes the next before it ends. At most 20 are in
// progress. One more is refused at once when this process is found to call
// itself; otherwise the host is only slow, and it waits a while for its turn.
//
// Requests for callers from the network are bounded in the process besides,
// whatever host they are for: slow hosts must leave threads to those who ask
// for nothing of them.
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

  // The peer that registered it, counted while it lives; null when none is known.
  void setOpener(std::unique_ptr<PeerCounts::Place const> opener) { m_opener = std::move(opener); }
  PeerCounts::Place const* opener() const noexcept { return m_opener.get(); }

  // How many requests of one registration may be in progress.
  static constexpr int MOST_REQUESTS = 20;
  // How many for callers from the network may be in progress in the process.
  static constexpr int MOST_SERVED = 100;

  // For tests: how long a request waits for its turn.
  static void setPatience(std::chrono::milliseconds patience) noexcept;

private:
  void logConnectingBack() const;
  bool copyCollection(DiscoveryQuery query, Authority const& authority, Subject const& subject,
                      char const* filterText, CollectionData& target) const;

  OzfString m_serviceName;
  OzfString m_registrationName1;
  OzfString m_registrationName2;
  AuthorityType m_authorityType;
  OzfHostname m_host;
  std::unique_ptr<PeerCounts::Place const> m_opener;
  CallPlaces m_requests{MOST_REQUESTS, MOST_REQUESTS};
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
