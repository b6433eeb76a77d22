#include "bench/TlsCall.h"

#include "bench/Bench.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace tqbench
{

std::shared_ptr<SSL_CTX> tlsContextOf(std::string const& files, std::string const& name)
{
  std::shared_ptr<SSL_CTX> const context(SSL_CTX_new(TLS_method()), SSL_CTX_free);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(context.get(), 0);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_TICKET);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  std::string const own = files + '/' + name;
  require(SSL_CTX_load_verify_file(context.get(), (files + "/ca.pem").c_str()) == 1 &&
              (name.empty() ||
               (SSL_CTX_use_certificate_chain_file(context.get(), (own + ".pem").c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(context.get(), (own + ".key").c_str(),
                                            SSL_FILETYPE_PEM) == 1)),
          "the certificates cannot be read");
  return context;
}

TlsCall::TlsCall(SSL_CTX* context, int socket) : m_session(SSL_new(context), SSL_free)
{
  require(m_session && SSL_set_fd(m_session.get(), socket) == 1, "no session of TLS");
  SSL_set_connect_state(m_session.get());
}

TlsCall::Progress TlsCall::shakeHands()
{
  ERR_clear_error();
  int const result = SSL_do_handshake(m_session.get());
  if (result == 1)
    return DONE;
  switch (SSL_get_error(m_session.get(), result))
  {
  case SSL_ERROR_WANT_READ:
    return READ;
  case SSL_ERROR_WANT_WRITE:
    return WRITE;
  default:
    return FAILED;
  }
}

} // namespace tqbench
