// What OpenSSL has to say, in words.

#pragma once

#include "ozf/base/Export.h"

#include <string>

using X509_STORE_CTX = struct x509_store_ctx_st;

namespace Quillon::Tessarine::Ozf
{

// The calling thread's first error, which is what went wrong; the others are the
// way there. Takes all of them away. "unknown error" when there is none.
std::string takeTlsError();

// Why a chain of certificates does not hold: a number of X509_V_ERR_...; "it has
// expired". which stands for the certificate that is not in order.
OZF_EXPORT std::string certificateErrorText(int error, std::string const& which = "it");

// The same of what such a check found last: "it has expired" of the certificate that was
// looked at, "the certificate of the authority Fleet has expired" of one above it.
std::string certificateErrorText(X509_STORE_CTX* check);

// What a peer says that ends a connection, as the number of TLS: "it has expired"
// for an expired certificate of this host, say. Empty for what is not about the
// certificate.
std::string alertAboutCertificate(int alert);

} // namespace Quillon::Tessarine::Ozf
