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

// Stores the payload under the record. An exit code, other than EXIT_DONE after
// telling the user why.
int sendToMaster(Connection const& connection,
                 Quillon::Tessarine::Ozf::DiscoverySvc::Remote::Discovery const& record,
                 std::string const& payload);

} // namespace tqdiscoctl
