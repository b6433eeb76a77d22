#include "ozf/tls/TlsContext.h"

#include "ozf/base/SystemError.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/TrustedFile.h"
#include "ozf/tls/TlsErrors.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Of TLS 1.2, those with keys of the connection's own and without known flaws.
constexpr char CIPHERS[] = "ECDHE+AESGCM:ECDHE+CHACHA20";

// Bytes of all certificates that a peer shows, for which memory is taken before
// anything about it is known.
constexpr long MOST_OF_CHAIN = 32768;

// A key that needs a password would have it asked for at the terminal.
int givePassword(char*, int, int, void*) { return 0; }

// Whether it can be opened, else told in the system's words, and others cannot change it.
bool isUsableFile(char const* key, std::string const& path, std::string& error)
{
  UniqueFd const file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  int failure = file.valid() && fstat(file.get(), &status) == 0 ? 0 : errno;
  if (failure == 0 && !S_ISREG(status.st_mode))
  {
    error = std::string(key) + " " + path + " is no file";
    return false;
  }
  std::string doubt;
  if (failure != 0)
    error = std::string(key) + " " + path + " cannot be read: " + errorText(failure);
  else if (othersMayChange(path, doubt))
    error = std::string(key) + " " + path + " may be changed by others: " + doubt;
  else
    return true;
  return false;
}

using CertificateCheck = std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)>;

// Called by OpenSSL for what is not in order.
int admitAnyTime(int holds, X509_STORE_CTX* check)
{
  int const error = X509_STORE_CTX_get_error(check);
  return error == X509_V_ERR_CERT_HAS_EXPIRED || error == X509_V_ERR_CERT_NOT_YET_VALID ? 1 : holds;
}

bool isSecret(std::string const& path, std::string& error)
{
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || (status.st_mode & S_IROTH) == 0)
    return true;
  error = std::string(configKey("TLS_KEY").name) + " " + path +
          " can be read by everybody on this host; accepted: a file for its owner and group";
  return false;
}

} // namespace

TlsContext::TlsContext(TlsSettings const& settings)
    : m_settings(settings), m_context(SSL_CTX_new(TLS_method()), SSL_CTX_free)
{
}

std::shared_ptr<TlsContext const> TlsContext::make(TlsSettings const& settings, std::string& error)
{
  std::shared_ptr<TlsContext> const context(new TlsContext(settings));
  ERR_clear_error();
  return context->load(error) ? context : nullptr;
}

bool TlsContext::load(std::string& error)
{
  auto const fail = [&](char const* key, std::string const& path)
  {
    error = std::string(key) + " " + path + " is not in order: " + takeTlsError();
    return false;
  };
  SSL_CTX* const context = m_context.get();
  if (context == nullptr)
  {
    error = "TLS cannot be set up: " + takeTlsError();
    return false;
  }
  if (!isUsableFile(configKey("TLS_CERTIFICATE").name, m_settings.certificate, error) ||
      !isUsableFile(configKey("TLS_KEY").name, m_settings.key, error) ||
      !isSecret(m_settings.key, error) ||
      !isUsableFile(configKey("TLS_CA").name, m_settings.authorities, error))
    return false;

  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_cipher_list(context, CIPHERS);
  // A session that is taken up again would be one whose certificate nobody looks
  // at any more.
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(context, 0);
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                SSL_MODE_RELEASE_BUFFERS);
  // One record at a time: a peer that sends messages of TLS itself and no data would
  // otherwise keep whoever reads, and with him everybody whom he reads from.
  SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
  SSL_CTX_set_max_cert_list(context, MOST_OF_CHAIN);
  SSL_CTX_set_default_passwd_cb(context, givePassword);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);

  if (SSL_CTX_use_certificate_chain_file(context, m_settings.certificate.c_str()) != 1)
    return fail(configKey("TLS_CERTIFICATE").name, m_settings.certificate);
  if (SSL_CTX_use_PrivateKey_file(context, m_settings.key.c_str(), SSL_FILETYPE_PEM) != 1)
  {
    bool const another = ERR_GET_REASON(ERR_peek_error()) == X509_R_KEY_VALUES_MISMATCH ||
                         ERR_GET_REASON(ERR_peek_error()) == X509_R_KEY_TYPE_MISMATCH;
    if (!another)
      return fail(configKey("TLS_KEY").name, m_settings.key);
    ERR_clear_error();
    error = std::string(configKey("TLS_KEY").name) + " " + m_settings.key + " is not the key of " +
            configKey("TLS_CERTIFICATE").name + " " + m_settings.certificate;
    return false;
  }
  if (SSL_CTX_load_verify_file(context, m_settings.authorities.c_str()) != 1)
    return fail(configKey("TLS_CA").name, m_settings.authorities);
  // By these names a peer with several certificates finds the one to show.
  SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(m_settings.authorities.c_str()));
  ERR_clear_error();

  X509* const own = SSL_CTX_get0_certificate(context);
  X509_up_ref(own);
  m_certificate.emplace(own);
  findFirstToEnd();
  return true;
}

// What is believed by more than one way, as while an authority is renewed, ends with the last.
void TlsContext::findFirstToEnd()
{
  constexpr int MOST_WAYS = 8;
  m_firstToEnd = m_certificate;
  STACK_OF(X509)* others = nullptr;
  SSL_CTX_get0_chain_certs(m_context.get(), &others);
  std::time_t const now = std::time(nullptr);
  std::time_t when = now;
  for (int way = 0; way < MOST_WAYS; ++way)
  {
    CertificateCheck const check(X509_STORE_CTX_new(), X509_STORE_CTX_free);
    if (!check || X509_STORE_CTX_init(check.get(), SSL_CTX_get_cert_store(m_context.get()),
                                      m_certificate->get(), others) != 1)
      break;
    X509_STORE_CTX_set_time(check.get(), 0, when);
    if (way == 0)
      X509_STORE_CTX_set_verify_cb(check.get(), admitAnyTime);
    if (X509_verify_cert(check.get()) != 1)
      break;
    m_firstToEnd = m_certificate;
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(check.get());
    for (int i = 1; i < sk_X509_num(chain); ++i)
    {
      X509* const above = sk_X509_value(chain, i);
      X509_up_ref(above);
      Certificate const one(above);
      if (one.end() != 0 && one.end() < m_firstToEnd->end())
        m_firstToEnd = one;
    }
    if (m_firstToEnd->end() <= now)
      break;
    when = m_firstToEnd->end() + 1;
  }
  ERR_clear_error();
}

std::string TlsContext::authorityToEnd() const
{
  return m_firstToEnd->get() == m_certificate->get() ? std::string() : m_firstToEnd->shownSubject();
}

// Empty when it is believed; role is what OpenSSL calls it, null for any.
std::string TlsContext::refusalOf(X509* certificate, stack_st_X509* chain, char const* role) const
{
  CertificateCheck const check(X509_STORE_CTX_new(), X509_STORE_CTX_free);
  bool const ready = check &&
                     X509_STORE_CTX_init(check.get(), SSL_CTX_get_cert_store(m_context.get()),
                                         certificate, chain) == 1 &&
                     (role == nullptr || X509_STORE_CTX_set_default(check.get(), role) == 1);
  std::string refusal;
  if (!ready)
    refusal = certificateErrorText(X509_V_ERR_OUT_OF_MEM);
  else if (X509_verify_cert(check.get()) != 1)
    refusal = certificateErrorText(check.get());
  ERR_clear_error();
  return refusal;
}

std::string TlsContext::refusalOfCaller(X509* certificate, stack_st_X509* chain) const
{
  return refusalOf(certificate, chain, "ssl_client");
}

std::vector<std::string> TlsContext::refusalsByPeers(std::string const& ownName) const
{
  std::vector<std::string> reasons;
  std::string const start = std::string(configKey("TLS_CERTIFICATE").name) + " " +
                            m_settings.certificate + " is refused by peers: ";
  STACK_OF(X509)* chain = nullptr;
  SSL_CTX_get0_chain_certs(m_context.get(), &chain);
  if (auto const refusal = refusalOf(m_certificate->get(), chain, nullptr); !refusal.empty())
    reasons.push_back(start + refusal);
  if (!m_certificate->mayServe() || !m_certificate->mayCall())
    reasons.push_back(start + certificateErrorText(X509_V_ERR_INVALID_PURPOSE));
  if (!ownName.empty() && !m_certificate->names(ownName))
    reasons.push_back(start + "it is for " + m_certificate->shownNames() +
                      " and not for this host, " + ownName);
  ERR_clear_error();
  return reasons;
}

} // namespace Quillon::Tessarine::Ozf
