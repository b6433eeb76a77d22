#include "web/ListenSocket.h"

#include <cstring>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr int BACKLOG = 512;
constexpr int KIND = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;

// Whether nobody takes connections at a socket that is there.
bool isDeserted(sockaddr_un const& address)
{
  struct stat status = {};
  if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
    return false;
  UniqueFd const fd(socket(AF_UNIX, KIND, 0));
  return connect(fd.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 &&
         errno == ECONNREFUSED;
}

UniqueFd listenInFiles(std::string const& path)
{
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  if (isDeserted(address))
    unlink(address.sun_path);
  UniqueFd fd(socket(AF_UNIX, KIND, 0));
  mode_t const before = umask(0117);
  int const bound = bind(fd.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
  {
    ErrnoKeeper const keeper;
    umask(before);
  }
  if (bound != 0 || listen(fd.get(), BACKLOG) != 0)
    return UniqueFd();
  return fd;
}

UniqueFd listenAtAddress(ListenPlace const& place, std::string& error)
{
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (int const failure =
          getaddrinfo(place.address.c_str(), std::to_string(place.port).c_str(), &hints, &found);
      failure != 0)
  {
    error = gai_strerror(failure);
    return UniqueFd();
  }
  UniqueFd fd(socket(found->ai_family, KIND, 0));
  int const on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  bool const listens = fd.valid() && bind(fd.get(), found->ai_addr, found->ai_addrlen) == 0 &&
                       listen(fd.get(), BACKLOG) == 0;
  {
    ErrnoKeeper const keeper;
    freeaddrinfo(found);
  }
  if (!listens)
    fd.reset();
  return fd;
}

} // namespace

UniqueFd listenAt(ListenPlace const& place, std::string& error)
{
  error.clear();
  bool const isFile = !place.path.empty();
  UniqueFd fd = isFile ? listenInFiles(place.path) : listenAtAddress(place, error);
  if (!fd.valid())
    error = "Unable to listen at " +
            (isFile ? place.path : place.address + " port " + std::to_string(place.port)) + ": " +
            (error.empty() ? errorText(errno) : error);
  return fd;
}

} // namespace Web
