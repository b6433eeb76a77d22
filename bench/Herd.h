// The hosts of a fleet that come back, so many at a time.

#pragma once

#include "tests/support/Certificates.h"

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace tqbench
{

// Hosts with an address of loopback and a certificate each, in a process of their own
// with a thread for each processor.
class Herd
{
public:
  // Forks, so this process must have neither an ORB nor threads. The certificates are
  // issued into the directory; returns when they have been.
  Herd(tqtest::CertificateAuthority& authority, std::string const& files, std::size_t hosts);
  ~Herd();
  Herd(Herd const&) = delete;
  Herd& operator=(Herd const&) = delete;

  struct Gathered
  {
    double seconds = 0;    // until each host was answered
    std::size_t again = 0; // connections that were ended before, and tried again
  };

  // Every host opens a connection to the port, shakes hands in full, asks a question and
  // keeps the connection once it is answered, when the next begins: so many are under way
  // at a time for each processor. Who fails tries again within a second. What was
  // connected before is let go.
  Gathered gather(unsigned short port, std::size_t underWay);

private:
  pid_t m_pid = 0;
  int m_commands = -1; // closed, by whatever end of this process, it ends the herd
  int m_results = -1;
};

} // namespace tqbench
