// A caller's side of a TLS handshake over a socket that does not block.

#pragma once

#include <memory>
#include <string>

using SSL = struct ssl_st;
using SSL_CTX = struct ssl_ctx_st;

namespace tqbench
{

// As the service has it: TLS 1.2 and 1.3, no session is taken up again. Believes "ca.pem"
// of the directory, and shows "<name>.pem" with "<name>.key", or for no name nothing.
std::shared_ptr<SSL_CTX> tlsContextOf(std::string const& files, std::string const& name);

class TlsCall
{
public:
  enum Progress
  {
    READ, // goes on when there is something to read
    WRITE,
    DONE,
    FAILED
  };

  TlsCall(SSL_CTX* context, int socket);

  Progress shakeHands();

  SSL* session() const noexcept { return m_session.get(); }

private:
  std::unique_ptr<SSL, void (*)(SSL*)> m_session;
};

} // namespace tqbench
