#include "explorers/FilesystemExplorer.h"

#include "discovery/ExplorerPayload.h"

#include <sys/sysmacros.h>

#include <array>
#include <cmath>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

using Type = OzfQuery::Type;
using Value = std::optional<std::string>;

Value ofSpace(Filesystem const& mount, std::uint64_t Space::*member)
{
  return mount.space ? known(std::optional((*mount.space).*member)) : Value();
}

// A file system that makes inodes as it needs them says that it has none.
Value ofInodes(Filesystem const& mount, std::uint64_t Space::*member)
{
  return mount.space && mount.space->inodes != 0 ? ofSpace(mount, member) : Value();
}

// Of what users can fill at all, in hundredths; more than none is at least one.
Value usedShare(Filesystem const& mount)
{
  if (!mount.space)
    return std::nullopt;
  auto const used = static_cast<long double>(mount.space->used);
  long double const all = used + static_cast<long double>(mount.space->available);
  if (all == 0)
    return std::nullopt;
  return std::to_string(static_cast<unsigned>(std::ceil(100 * used / all))) + '%';
}

constexpr std::array<Fact<Filesystem>, 16> FACTS = {{
    {"MountPoint", Type::TEXT, "Where the file system is mounted",
     [](Filesystem const& mount) -> Value { return known(mount.mountPoint); }},
    {"Type", Type::TEXT, "The type of the file system",
     [](Filesystem const& mount) -> Value { return known(mount.type); }},
    {"Kind", Type::TEXT, "local, memory, network, pseudo or other",
     [](Filesystem const& mount) -> Value { return toText(mount.kind); }},
    {"Hidden", Type::BOOLEAN, "true where another file system is mounted over it",
     [](Filesystem const& mount) -> Value { return mount.hidden ? Value("true") : std::nullopt; }},
    {"Source", Type::TEXT, "The device or share that is mounted",
     [](Filesystem const& mount) -> Value { return known(mount.source); }},
    {"Root", Type::TEXT, "The folder of the file system that is mounted",
     [](Filesystem const& mount) -> Value { return known(mount.root); }},
    {"Device", Type::TEXT, "The device number, major:minor",
     [](Filesystem const& mount) -> Value
     { return std::to_string(major(mount.device)) + ':' + std::to_string(minor(mount.device)); }},
    {"Options", Type::TEXT, "The mount options",
     [](Filesystem const& mount) -> Value { return known(mount.options); }},
    {"Uuid", Type::TEXT, "The identifier of the file system",
     [](Filesystem const& mount) -> Value { return known(mount.uuid); }},
    {"Label", Type::TEXT, "The label of the file system",
     [](Filesystem const& mount) -> Value { return known(mount.label); }},
    {"Size", Type::SIZE, "The size of the file system",
     [](Filesystem const& mount) -> Value { return ofSpace(mount, &Space::size); }},
    {"Used", Type::SIZE, "The space in use",
     [](Filesystem const& mount) -> Value { return ofSpace(mount, &Space::used); }},
    {"Available", Type::SIZE, "The space that users can still fill",
     [](Filesystem const& mount) -> Value { return ofSpace(mount, &Space::available); }},
    {"Use", Type::NUMBER, "The share in use of what users can fill", usedShare, "%"},
    {"Inodes", Type::NUMBER, "The number of inodes",
     [](Filesystem const& mount) -> Value { return ofInodes(mount, &Space::inodes); }},
    {"InodesUsed", Type::NUMBER, "The number of inodes in use",
     [](Filesystem const& mount) -> Value { return ofInodes(mount, &Space::inodesUsed); }},
}};

} // namespace

Facts<Filesystem> filesystemFacts() { return FACTS; }

FilesystemExplorer::FilesystemExplorer(std::string root, SpaceProbe probe)
    : TimedExplorer(INTERVAL), m_root(std::move(root)), m_probe(std::move(probe))
{
}

DiscoveryStatus FilesystemExplorer::run(Authority const& authority, Subject const& subject,
                                        CollectionAttributes const& attributes,
                                        DiscoveryFactory const& factory)
{
  DiscoveredItems items(*this);
  for (auto const& mount : collectFilesystems(m_root, m_probe))
    items.addItem(mount.mountPoint, filesystemFacts(), mount);
  return storeWithFilters(factory, subject, authority, attributes, items.finish(),
                          filterDocument(filesystemFacts()), "FilesystemExplorer::explore");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
