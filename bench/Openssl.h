// openssl's own server and client as the floor of full handshakes.

#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace tqbench
{

// Servers, one for each processor, that ask for a certificate and let no session be taken
// up again, with "host.pem", "host.key" and "ca.pem" of the directory; and for each a
// client with the same files.
class OpensslPairs
{
public:
  // What they say goes into files of the directory.
  explicit OpensslPairs(std::string const& files);
  ~OpensslPairs();
  OpensslPairs(OpensslPairs const&) = delete;
  OpensslPairs& operator=(OpensslPairs const&) = delete;

  // Seconds of a handshake, while all shake hands for some seconds.
  double shakeHands();

private:
  struct Server
  {
    pid_t pid;
    unsigned short port;
  };

  std::string const m_files;
  std::vector<Server> m_servers;
};

} // namespace tqbench
