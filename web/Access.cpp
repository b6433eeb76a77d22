#include "web/Access.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/Trim.h"
#include "ozf/config/IpAddress.h"
#include "web/Connections.h"

#include <gnutls/gnutls.h>
#include <microhttpd.h>

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

// Takes as long for all texts of one length.
bool isSame(std::string_view a, std::string_view b)
{
  if (a.size() != b.size())
    return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
  return difference == 0;
}

std::string fromBase64(std::string_view text)
{
  gnutls_datum_t const encoded{reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
                               static_cast<unsigned>(text.size())};
  gnutls_datum_t decodedText{};
  if (text.empty() || gnutls_base64_decode2(&encoded, &decodedText) < 0)
    return {};
  std::string result(reinterpret_cast<char const*>(decodedText.data), decodedText.size);
  gnutls_free(decodedText.data);
  return result;
}

bool hasAcceptedCertificate(MHD_Connection* connection)
{
  auto const* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
  if (info == nullptr || info->tls_session == nullptr)
    return false;
  auto* const session = static_cast<gnutls_session_t>(info->tls_session);
  unsigned status = 0;
  return gnutls_certificate_verify_peers2(session, &status) == GNUTLS_E_SUCCESS && status == 0;
}

std::string_view header(MHD_Connection* connection, char const* name)
{
  char const* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value == nullptr ? std::string_view() : value;
}

} // namespace

bool Access::hasToken(std::string_view authorization) const
{
  auto const space = std::min(authorization.find(' '), authorization.size());
  std::string_view const scheme = authorization.substr(0, space);
  std::string_view const rest = trimmed(authorization.substr(space));
  if (equalIgnoringCase(scheme, "Bearer"))
    return isSame(rest, m_token);
  if (!equalIgnoringCase(scheme, "Basic"))
    return false;
  std::string const pair = fromBase64(rest);
  auto const colon = pair.find(':');
  return colon != std::string::npos && isSame(std::string_view(pair).substr(colon + 1), m_token);
}

bool Access::isOwnHost(std::string_view host)
{
  auto const isAddress = [](std::string_view text)
  { return IpAddress::fromText(std::string(text)).has_value(); };
  if (host.starts_with('['))
  {
    auto const end = host.find(']');
    return end != std::string_view::npos && isAddress(host.substr(1, end - 1));
  }
  std::string_view const name = host.substr(0, host.find(':'));
  return equalIgnoringCase(name, "localhost") || isAddress(name);
}

std::optional<Answer> Access::refusal(MHD_Connection* connection, Peer& peer) const
{
  if (m_wantsCertificate && !peer.isTrusted)
  {
    peer.isTrusted = hasAcceptedCertificate(connection);
    if (!peer.isTrusted)
      return problem(403, "a certificate of an authority that WEB_TLS_CA names is wanted");
  }
  if (m_checksHost && !isOwnHost(header(connection, MHD_HTTP_HEADER_HOST)))
    return problem(403, "the request names another host; this server answers by its address, or "
                        "as localhost");
  if (m_token.empty() || hasToken(header(connection, MHD_HTTP_HEADER_AUTHORIZATION)))
    return std::nullopt;
  Answer answer = problem(401, "a token is wanted");
  answer.headers.emplace_back("WWW-Authenticate", R"(Basic realm="tqdiscoweb", charset="UTF-8")");
  return answer;
}

} // namespace Web
