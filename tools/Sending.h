// Storing with the master.

#pragma once

#include "tools/Connection.h"

#include <cstdint>
#include <string>

namespace tqdiscoctl
{

// A record by a user of this command: found now, to hold for so many seconds.
Quillon::Tessarine::Ozf::DiscoverySvc::Remote::Discovery
recordToStore(std::string const& subject, std::string const& authority,
              Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType type, unsigned priority,
              std::uint64_t seconds);

// What came of storing a payload.
struct Sent
{
  int result = EXIT_DONE; // an exit code
  std::string reason;     // why it is another
  bool broken = false;    // the service may be gone
};

// Stores the payload under the record with that service; tells nobody.
Sent sendTo(Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_ptr service,
            Quillon::Tessarine::Ozf::DiscoverySvc::Remote::Discovery const& record,
            std::string const& payload);

// The same with the master. An exit code, other than EXIT_DONE after telling the user why.
int sendToMaster(Connection const& connection,
                 Quillon::Tessarine::Ozf::DiscoverySvc::Remote::Discovery const& record,
                 std::string const& payload);

} // namespace tqdiscoctl
