#include "ozf/tls/TlsErrors.h"

#include "ozf/tls/Certificate.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

namespace Quillon::Tessarine::Ozf
{

std::string takeTlsError()
{
  unsigned long const error = ERR_get_error();
  ERR_clear_error();
  if (error == 0)
    return "unknown error";
  char const* const reason = ERR_reason_error_string(error);
  if (reason != nullptr)
    return reason;
  char text[256];
  ERR_error_string_n(error, text, sizeof text);
  return text;
}

std::string certificateErrorText(int error, std::string const& which)
{
  switch (error)
  {
  case X509_V_ERR_CERT_HAS_EXPIRED:
    return which + " has expired";
  case X509_V_ERR_CERT_NOT_YET_VALID:
    return which + " is not valid yet";
  case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
  case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
  case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
  case X509_V_ERR_CERT_SIGNATURE_FAILURE:
  case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    return "it is of another authority than those of TLS_CA";
  case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    return "it is signed by itself, and none of TLS_CA";
  case X509_V_ERR_INVALID_PURPOSE:
    return which + " is not made for this role: its extended key usage has to allow servers and "
                   "clients";
  default:
    return X509_verify_cert_error_string(error);
  }
}

std::string certificateErrorText(X509_STORE_CTX* check)
{
  int const error = X509_STORE_CTX_get_error(check);
  X509* const above =
      X509_STORE_CTX_get_error_depth(check) > 0 ? X509_STORE_CTX_get_current_cert(check) : nullptr;
  if (above == nullptr || X509_up_ref(above) != 1)
    return certificateErrorText(error);
  return certificateErrorText(error, "the certificate of the authority " +
                                         Certificate(above).shownSubject());
}

std::string alertAboutCertificate(int alert)
{
  switch (alert)
  {
  case SSL_AD_NO_CERTIFICATE:
  case SSL_AD_CERTIFICATE_REQUIRED:
    return "it wants one";
  case SSL_AD_CERTIFICATE_EXPIRED:
    return "it has expired";
  case SSL_AD_CERTIFICATE_REVOKED:
    return "it has been revoked";
  case SSL_AD_UNKNOWN_CA:
    return "it is of an authority that is not known there";
  case SSL_AD_UNSUPPORTED_CERTIFICATE:
    return "it is not made for this role";
  case SSL_AD_BAD_CERTIFICATE:
  case SSL_AD_CERTIFICATE_UNKNOWN:
  case SSL_AD_ACCESS_DENIED:
    return "it is not accepted there";
  default:
    return {};
  }
}

} // namespace Quillon::Tessarine::Ozf
