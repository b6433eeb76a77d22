// The mounted file systems of a host.

#pragma once

#include "explorers/SpaceProbe.h"

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// What may be done with a mount. Only a local one and one in memory are ever
// touched.
enum class MountKind
{
  Local,
  Memory, // kept in memory up to a size that it has
  Network,
  Pseudo, // kept by the kernel, without a device of its own
  Other   // automounters, file systems of user processes, and all that is not known to be local
};

char const* toText(MountKind kind);

struct Filesystem
{
  std::string mountPoint;
  std::string type;
  MountKind kind = MountKind::Other;
  std::string source;
  std::string root; // what of the file system is mounted; "/" for all of it
  dev_t device = 0;
  std::string options;
  std::string uuid;    // empty when not known
  std::string label;   // likewise; any bytes
  bool hidden = false; // no path leads there: something else is mounted over it
  std::optional<Space> space;
};

MountKind classifyMount(std::string const& type, dev_t device);

// Every entry of the mount table, root/proc/self/mountinfo, in its order; none,
// with a log line, when it cannot be read; lines that are damaged are left out.
//
// A local file system, and one in memory, is measured with probe, unless no way
// leads to it, or one through a mount that must not be touched: the kernel walks every component
// of a path. Two file systems mounted over each other count as such a way for
// both. The way through "/" is always taken, since a host whose root is dead is
// dead itself.
std::vector<Filesystem> collectFilesystems(std::string const& root, SpaceProbe& probe);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
