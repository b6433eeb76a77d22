// Whether a certificate is that of the host that was meant.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/tls/Certificate.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// host is a name or an address, as a reference has it. A name is to stand in the
// certificate. An address is to stand there too; or a name that HOST_ADDRESS of
// the configuration gives that address; or, for an address without such a name, a
// name that the system's resolver gives it. That last is how references are
// followed in which hosts tell one another addresses alone; it may block for the
// resolver's time-out. Otherwise the reason names both: "the certificate of
// 192.0.2.7 (backup1) is for backup2".
OZF_EXPORT bool isProvenHost(Certificate const& certificate, std::string const& host,
                             std::string& reason);

} // namespace Quillon::Tessarine::Ozf
