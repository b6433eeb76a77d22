#include "ozf/orb/SelfConnection.h"

#include "ozf/orb/SocketEnds.h"

#include <charconv>
#include <filesystem>
#include <set>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Calls see(here, there) for each connection of the process until it says true.
template <class See>
bool anyConnection(See const& see)
{
  std::error_code failed;
  for (std::filesystem::directory_iterator entry("/proc/self/fd", failed), end;
       !failed && entry != end; entry.increment(failed))
  {
    std::string const name = entry->path().filename();
    int fd = -1;
    if (std::from_chars(name.data(), name.data() + name.size(), fd).ec != std::errc())
      continue;
    // Ends that are no connections, or gone by now, answer neither.
    auto const here = ownEnd(fd);
    auto const there = here ? peerEnd(fd) : std::nullopt;
    if (there && see(*here, *there))
      return true;
  }
  return false;
}

} // namespace

bool isConnectedWithItself(std::string const& address)
{
  std::set<std::pair<SocketEnd, SocketEnd>> connections;
  return anyConnection(
      [&](SocketEnd const& here, SocketEnd const& there)
      {
        if (connections.contains({there, here}) &&
            (here.address == address || there.address == address))
          return true;
        connections.emplace(here, there);
        return false;
      });
}

bool isConnectedWithItself(int descriptor)
{
  auto const own = ownEnd(descriptor);
  auto const other = own ? peerEnd(descriptor) : std::nullopt;
  return other && anyConnection([&](SocketEnd const& here, SocketEnd const& there)
                                { return here == *other && there == *own; });
}

} // namespace Quillon::Tessarine::Ozf
