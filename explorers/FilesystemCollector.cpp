#include "explorers/FilesystemCollector.h"

#include "discovery/DiscoveryLog.h"
#include "explorers/DeviceIdentities.h"
#include "explorers/FactFiles.h"
#include "ozf/base/SystemError.h"

#include <libmount/libmount.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "FilesystemCollector";

struct Release
{
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
  void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};

// Network file systems that the mount library does not count as such. Some of
// them stand on a shared block device, so the device number does not give
// them away.
constexpr std::array<std::string_view, 9> MORE_NETWORK_TYPES = {
    "ceph", "lustre", "beegfs", "gfs2", "ocfs2", "orangefs", "pvfs2", "coda", "gpfs"};

// Local file systems that have no device number of their own because they may
// span several devices.
constexpr std::array<std::string_view, 4> MULTI_DEVICE_TYPES = {"btrfs", "zfs", "bcachefs",
                                                                "ubifs"};

template <std::size_t N>
bool contains(std::array<std::string_view, N> const& types, std::string const& type)
{
  return std::find(types.begin(), types.end(), type) != types.end();
}

std::string text(char const* value) { return value == nullptr ? "" : value; }

int skipLine(libmnt_table*, char const* file, int line)
{
  OZF_LOG(getOzfLogger(), 4, SOURCE, "collectFilesystems",
          "Ignoring line " << line << " of " << file);
  return 1;
}

// Where mounts stand, to follow paths as the kernel does.
class MountTree
{
public:
  void add(int id, int parent, std::string const& mountPoint)
  {
    m_over[{parent, mountPoint}] = id;
    m_parents.emplace(id, std::pair(parent, mountPoint));
  }

  // Whether the path to the mount ends at another one. One whose place is not
  // known, as the mounts above it are not in the table, is not hidden.
  bool isHidden(int id) const
  {
    auto const found = m_parents.find(id);
    if (found == m_parents.end())
      return false;
    auto const [parent, mountPoint] = found->second;
    int at = topmost();
    if (at == NONE || m_parents.count(parent) == 0)
      return at != NONE && mountPoint == "/" && at != id;
    for (std::size_t end = 0; end != std::string::npos && mountPoint != "/";)
    {
      end = mountPoint.find('/', end + 1);
      at = climbed(at, mountPoint.substr(0, end));
    }
    return at != id;
  }

private:
  static constexpr int NONE = -1;

  // What is mounted over the place, on top of that mount.
  int climbed(int at, std::string const& place) const
  {
    std::set<int> seen; // a damaged table may have loops
    for (auto over = m_over.find({at, place}); over != m_over.end() && seen.insert(at).second;
         over = m_over.find({at, place}))
      at = over->second;
    return at;
  }

  // The root that processes see.
  int topmost() const
  {
    for (auto const& [id, place] : m_parents)
      if (place.second == "/" && (m_parents.count(place.first) == 0 || place.first == id))
        return climbed(id, "/");
    return NONE;
  }

  std::map<std::pair<int, std::string>, int> m_over; // the last mount on a parent at a place
  std::map<int, std::pair<int, std::string>> m_parents;
};

std::vector<Filesystem> readMountTable(std::string const& root)
{
  std::string const file = below(root, "proc/self/mountinfo");
  std::vector<Filesystem> mounts;
  std::vector<int> ids;
  MountTree tree;
  std::unique_ptr<libmnt_table, Release> const table(mnt_new_table());
  std::unique_ptr<libmnt_iter, Release> const iterator(mnt_new_iter(MNT_ITER_FORWARD));
  if (!table || !iterator)
    throw std::bad_alloc();

  mnt_table_set_parser_errcb(table.get(), skipLine);
  if (int const result = mnt_table_parse_file(table.get(), file.c_str()); result != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "collectFilesystems",
            "Cannot read the mount table " << file << ": " << errorText(std::abs(result)));
    return mounts;
  }

  libmnt_fs* entry = nullptr;
  while (mnt_table_next_fs(table.get(), iterator.get(), &entry) == 0)
  {
    Filesystem mount;
    mount.mountPoint = text(mnt_fs_get_target(entry));
    mount.type = text(mnt_fs_get_fstype(entry));
    mount.source = text(mnt_fs_get_source(entry));
    mount.root = text(mnt_fs_get_root(entry));
    mount.device = mnt_fs_get_devno(entry);
    mount.options = text(mnt_fs_get_options(entry));
    mount.kind = classifyMount(mount.type, mount.device);
    if (mount.mountPoint.empty() || mount.type.empty())
      continue;
    ids.push_back(mnt_fs_get_id(entry));
    tree.add(ids.back(), mnt_fs_get_parent_id(entry), mount.mountPoint);
    mounts.push_back(std::move(mount));
  }
  for (std::size_t i = 0; i < mounts.size(); ++i)
    mounts[i].hidden = tree.isHidden(ids[i]);
  return mounts;
}

// Whether a walk to path passes through place. Every walk passes through "/",
// which does not count.
bool leadsThrough(std::string_view path, std::string_view place)
{
  return path.starts_with(place) && (path.size() == place.size() || path[place.size()] == '/');
}

// Memory file systems of the kernel answer at once, but an automounter waits
// for a process, and may mount what is dead. Types that are not known count
// as Other already.
bool mayHang(MountKind kind) { return kind == MountKind::Network || kind == MountKind::Other; }

std::vector<std::string> hangingPlaces(std::vector<Filesystem> const& mounts)
{
  std::vector<std::string> places;
  for (auto const& mount : mounts)
    if (mayHang(mount.kind))
      places.push_back(mount.mountPoint);
  return places;
}

} // namespace

char const* toText(MountKind kind)
{
  switch (kind)
  {
  case MountKind::Local:
    return "local";
  case MountKind::Memory:
    return "memory";
  case MountKind::Network:
    return "network";
  case MountKind::Pseudo:
    return "pseudo";
  case MountKind::Other:
    break;
  }
  return "other";
}

MountKind classifyMount(std::string const& type, dev_t device)
{
  if (mnt_fstype_is_netfs(type.c_str()) != 0 || contains(MORE_NETWORK_TYPES, type))
    return MountKind::Network;
  if (type == "autofs" || type.rfind("fuse", 0) == 0)
    return type == "fusectl" ? MountKind::Pseudo : MountKind::Other;
  // Folders of a virtual machine's host: answered by another machine.
  if (type == "virtiofs" || type == "vboxsf")
    return MountKind::Other;
  if (type == "tmpfs")
    return MountKind::Memory;
  if (mnt_fstype_is_pseudofs(type.c_str()) != 0)
    return MountKind::Pseudo;
  return major(device) != 0 || contains(MULTI_DEVICE_TYPES, type) ? MountKind::Local
                                                                  : MountKind::Other;
}

std::vector<Filesystem> collectFilesystems(std::string const& root, SpaceProbe& probe)
{
  auto mounts = readMountTable(root);
  auto const places = hangingPlaces(mounts);
  DeviceIdentities const identities(root);
  probe.begin();
  for (auto& mount : mounts)
  {
    if (mount.kind != MountKind::Local && mount.kind != MountKind::Memory)
      continue;
    auto const identity = identities.find(kernelNameOf(root, mount.source),
                                          major(mount.device) != 0 ? mount.device : 0);
    mount.uuid = identity.uuid;
    mount.label = identity.label;
    if (!mount.hidden && std::none_of(places.begin(), places.end(),
                                      [&](std::string const& place)
                                      { return leadsThrough(mount.mountPoint, place); }))
      mount.space = probe.measure(mount.mountPoint, mount.device);
  }
  return mounts;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
