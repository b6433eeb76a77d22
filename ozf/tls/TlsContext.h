// What this host proves itself with, and whom it believes.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/tls/Certificate.h"
#include "ozf/tls/TlsSettings.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

using SSL_CTX = struct ssl_ctx_st;
struct stack_st_X509;

namespace Quillon::Tessarine::Ozf
{

// The files of the settings, read once. Immutable; any thread. Connections that
// were made with one go on with it when another takes its place.
class OZF_EXPORT TlsContext
{
public:
  // Null, with the reason in error, when a file cannot be read, is not in order
  // or does not fit the others. settings are not those of TLS turned off.
  static std::shared_ptr<TlsContext const> make(TlsSettings const& settings, std::string& error);

  TlsSettings const& settings() const noexcept { return m_settings; }
  Certificate const& certificate() const noexcept { return *m_certificate; }

  // Of the certificates from the host's own to that of an authority of TLS_CA, by which
  // peers believe it, the one whose end makes them refuse it; and whose that is, empty
  // where it is the host's own.
  Certificate const& firstToEnd() const noexcept { return *m_firstToEnd; }
  std::string authorityToEnd() const;

  // Why peers that believe the same authorities refuse this host's certificate
  // now, a sentence each; empty when they do not. ownName is the name of this
  // host.
  std::vector<std::string> refusalsByPeers(std::string const& ownName) const;

  // Why a peer that calls with that certificate is refused now; empty when it is
  // believed. chain, which may be null, is what the peer showed beside it.
  std::string refusalOfCaller(X509* certificate, stack_st_X509* chain) const;

  SSL_CTX* get() const noexcept { return m_context.get(); }

private:
  explicit TlsContext(TlsSettings const& settings);
  bool load(std::string& error);
  std::string refusalOf(X509* certificate, stack_st_X509* chain, char const* role) const;
  void findFirstToEnd();

  TlsSettings const m_settings;
  std::shared_ptr<SSL_CTX> m_context;
  std::optional<Certificate> m_certificate;
  std::optional<Certificate> m_firstToEnd;
};

} // namespace Quillon::Tessarine::Ozf
