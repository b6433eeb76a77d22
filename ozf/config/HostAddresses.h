// Which addresses hosts have.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/config/IpAddress.h"

#include <memory>
#include <netdb.h>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

using AddressList = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

// What the system's resolver has for the host. Null, with the reason, when that is
// nothing. Blocks for the resolver's time-out at worst.
OZF_EXPORT AddressList lookUpHost(std::string const& host, std::string& reason);

// All addresses that the system's resolver has for the host, or the address that
// the text is. None, with the reason, when there are none. Blocks for the
// resolver's time-out at worst.
OZF_EXPORT std::vector<IpAddress> resolveHost(std::string const& host, std::string& reason);

// Whether it is one of the host's addresses: those of HOST_ADDRESS, or those of
// the resolver without it. The address is that of the peer for whose call it is asked:
// how long it may block, what is remembered, and when it throws TooManyLookUps, is as
// HostAnswers says (ozf/config/HostAnswers.h). Any thread.
OZF_EXPORT bool isAddressOf(std::string const& host, IpAddress const& address);

// The names that HOST_ADDRESS gives the address. Does not block.
OZF_EXPORT std::vector<std::string> namesOfAddress(IpAddress const& address);

} // namespace Quillon::Tessarine::Ozf
