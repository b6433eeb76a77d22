// The floor of handshakes: a server that does nothing else, and who calls it and the
// service alike.

#pragma once

#include "tests/support/Certificates.h"

#include <cstddef>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tqbench
{

// A process that takes connections in on loopback, with as many threads as there are
// processors up to as many as the service has for it, shakes hands on each, asking for
// a certificate, and answers what it is asked with a byte.
class BareTls
{
public:
  // Forks, so this process must have neither an ORB nor threads yet.
  BareTls();
  ~BareTls();
  BareTls(BareTls const&) = delete;
  BareTls& operator=(BareTls const&) = delete;

  // Serves from now on with "host.pem", "host.key" and "ca.pem" of that directory.
  void begin(std::string const& files);

  unsigned short port() const noexcept { return m_port; }

private:
  int m_socket = -1;
  unsigned short m_port = 0;
  pid_t m_pid = 0;
  int m_life = -1; // closed, by whatever end of this process, it ends the server
};

// Makes the directory, and in it an authority, "ca.pem", and a certificate of it with
// its key for the hosts, "host.pem" and "host.key". The authority may issue more.
tqtest::CertificateAuthority makeCertificates(std::string const& directory,
                                              std::vector<std::string> const& hosts);

// Callers with the certificate "host.pem" of the directory, a thread for each
// processor.
class TlsCallers
{
public:
  explicit TlsCallers(std::string const& files);

  // Seconds for so many connections with a full handshake each, and for one more that
  // is answered: then the server has done the others.
  double shakeHands(unsigned short port, std::size_t count) const;

private:
  void call(unsigned short port, bool ask) const;

  std::shared_ptr<SSL_CTX> m_context;
};

} // namespace tqbench
