// Ports for services that a test starts.

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

namespace tqtest
{

// Whether nobody holds the port at the address; holds it then when keep says
// so, until the process ends.
inline bool bindPort(char const* address, unsigned short port, bool keep)
{
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  inet_pton(AF_INET, address, &name.sin_addr);
  int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool const bound = bind(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0;
  if (!bound || !keep)
    close(fd);
  return bound;
}

// A port that is free at a loopback address and stays this process's own. It
// lies below the ports that the kernel gives to connections, and the same port
// of an address that no service uses marks it as taken among the tests that
// run beside this one; freePort of the interop tests keeps to both.
inline unsigned short freePort(char const* address = "127.0.0.1")
{
  static std::mt19937 random{std::random_device{}()};
  std::uniform_int_distribution<unsigned short> ports(12000, 31999);
  for (int tries = 0; tries < 1000; ++tries)
  {
    unsigned short const port = ports(random);
    if (bindPort(address, port, false) && bindPort("127.255.255.254", port, true))
      return port;
  }
  ADD_FAILURE() << "no free port on " << address;
  return 0;
}

} // namespace tqtest
