// The registrations of other hosts' pull explorers as they are kept in the
// database, so that a master that starts knows them before the hosts register
// again: one document is written, walked and read here.

#pragma once

#include "discovery/CachedRegistrations.h"
#include "discovery/DiscoveryFactory.h"
#include "discovery/ExplorerRemotePull.h"
#include "ozf/base/OzfString.h"

#include <DiscoveryTypesC.h>

#include <functional>
#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What a record's document says. Subject and authority are the record's own.
struct PullRegistration
{
  OzfString sourceHost;
  OzfString serviceName;
  unsigned priority = 0;
  AuthorityType originType = AT_ANYANDALL;
};

// The document, and what a document says; nothing, with a log line where it is
// not well-formed, when a value is missing.
TQ_EXPORT std::string pullRegistrationText(PullRegistration const& registration);
TQ_EXPORT std::optional<PullRegistration> readPullRegistration(std::string const& text);

// Writes the registration as a discovery that the factory makes, whose store is
// the database. False when that failed, which is logged, as is a registration whose
// record is new and would be one too many.
TQ_EXPORT bool storePullRegistration(DiscoveryFactory const& factory, CachedRegistrations& cached,
                                     RemoteExplorerPull const& explorer, unsigned priority,
                                     std::string const& subject, std::string const& authority);

// Walks over the records, counts them, and hands each registration over, with the record it
// stands in. Records that cannot be read are passed over, and so, with a line,
// is one that names this host. A line tells when records are missing.
using RestoreRegistration = std::function<void(RemoteExplorerPull const& explorer,
                                               unsigned priority, Discovery const& record)>;
TQ_EXPORT void restorePullRegistrations(DiscoveryIterator& records, CachedRegistrations& cached,
                                        RestoreRegistration const& restore);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
