// What OpenSSL has to say, in words.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// The calling thread's first error, which is what went wrong; the others are the
// way there. Takes all of them away. "unknown error" when there is none.
std::string takeTlsError();

// Why a chain of certificates does not hold: a number of X509_V_ERR_...; "it has
// expired".
OZF_EXPORT std::string certificateErrorText(int error);

// What a peer says that ends a connection, as the number of TLS: "it has expired"
// for an expired certificate of this host, say. Empty for what is not about the
// certificate.
std::string alertAboutCertificate(int alert);

} // namespace Quillon::Tessarine::Ozf
