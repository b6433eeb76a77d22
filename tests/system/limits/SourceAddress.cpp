#include "tests/system/limits/SourceAddress.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdlib>

namespace
{

std::atomic<in_addr_t> sourceOfConnections{INADDR_ANY};

bool isLoopback(sockaddr const* address)
{
  constexpr in_addr_t NETWORK = 127;
  return address->sa_family == AF_INET &&
         ntohl(reinterpret_cast<sockaddr_in const*>(address)->sin_addr.s_addr) >> 24 == NETWORK;
}

} // namespace

SourceAddress::SourceAddress(std::string const& address)
{
  sourceOfConnections = inet_addr(address.c_str());
}

SourceAddress::~SourceAddress() { sourceOfConnections = INADDR_ANY; }

extern "C" __attribute__((visibility("default"))) int connect(int socket, sockaddr const* address,
                                                              socklen_t size)
{
  using Connect = int (*)(int, sockaddr const*, socklen_t);
  static auto const original = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
  if (original == nullptr)
    std::abort();
  if (in_addr_t const source = sourceOfConnections; source != INADDR_ANY && isLoopback(address))
  {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = source;
    if (bind(socket, reinterpret_cast<sockaddr const*>(&name), sizeof name) != 0)
      return -1;
  }
  return original(socket, address, size);
}
