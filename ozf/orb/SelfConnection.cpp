#include "ozf/orb/SelfConnection.h"

#include "ozf/orb/SocketEnds.h"

#include <charconv>
#include <filesystem>
#include <set>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

bool isConnectedWithItself(std::string const& address)
{
  std::error_code failed;
  std::set<std::pair<SocketEnd, SocketEnd>> connections;
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
    if (!there)
      continue;
    if (connections.contains({*there, *here}) &&
        (here->address == address || there->address == address))
      return true;
    connections.emplace(*here, *there);
  }
  return false;
}

} // namespace Quillon::Tessarine::Ozf
