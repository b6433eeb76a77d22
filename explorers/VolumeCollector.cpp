#include "explorers/VolumeCollector.h"

#include "discovery/DiscoveryLog.h"
#include "explorers/DeviceIdentities.h"
#include "explorers/FactFiles.h"
#include "ozf/base/OzfPathname.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "VolumeCollector";

// The kernel counts in these, whatever the device's own sectors are.
constexpr std::uint64_t SECTOR = 512;

// The kernel writes '!' for a '/' in a device's name.
std::string pathOf(std::string kernelName)
{
  std::replace(kernelName.begin(), kernelName.end(), '!', '/');
  return "/dev/" + kernelName;
}

std::vector<std::string> namesIn(std::string const& folder, char const* operation)
{
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
    names.push_back(entry->path().filename().string());
  if (error && error != std::errc::no_such_file_or_directory)
    OZF_LOG(getOzfLogger(), 4, SOURCE, operation,
            "Cannot list " << folder << ": " << error.message());
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<std::uint64_t> sectors(std::string const& folder, char const* name)
{
  auto const number = readNumber(folder, name);
  return number ? std::optional(saturatingProduct(*number, SECTOR)) : std::nullopt;
}

std::optional<bool> flag(std::string const& folder, char const* name)
{
  auto const number = readNumber(folder, name);
  return number ? std::optional(*number != 0) : std::nullopt;
}

dev_t deviceNumber(std::string const& folder)
{
  std::string const text = readFact(folder, "dev").value_or("");
  auto const colon = text.find(':');
  if (colon == std::string::npos)
    return 0;
  auto const high = parseNumber(std::string_view(text).substr(0, colon));
  auto const low = parseNumber(std::string_view(text).substr(colon + 1));
  return high && low && *high <= 0xffffffffU && *low <= 0xffffffffU
             ? makedev(static_cast<unsigned>(*high), static_cast<unsigned>(*low))
             : 0;
}

std::string kindOf(std::string const& folder, std::string const& kernelName)
{
  std::error_code ignored;
  auto const has = [&](char const* name)
  { return std::filesystem::exists(below(folder, name), ignored); };
  if (has("partition"))
    return "partition";
  if (has("dm"))
    return "mapped";
  if (has("md"))
    return "raid";
  if (kernelName.rfind("loop", 0) == 0)
    return "loop";
  if (kernelName.rfind("ram", 0) == 0 || kernelName.rfind("zram", 0) == 0)
    return "memory";
  return "disk";
}

// A partition's folder lies in the folder of its disk.
std::string diskOf(std::string const& folder)
{
  std::error_code error;
  auto const real = std::filesystem::canonical(folder, error);
  return error ? "" : real.parent_path().filename().string();
}

// A disk that a machine's host makes up. What it says of its mechanics is a
// default of the driver, and its vendor a number for drivers.
bool isMadeUp(std::string const& diskFolder)
{
  std::error_code error;
  auto const bus =
      std::filesystem::canonical(below(diskFolder, "device/subsystem"), error).filename();
  return !error && (bus == "virtio" || bus == "xen");
}

Volume collectVolume(std::string const& folder, std::string const& kernelName,
                     DeviceIdentities const& identities)
{
  Volume volume;
  volume.kernelName = kernelName;
  volume.path = pathOf(kernelName);
  volume.kind = kindOf(folder, kernelName);
  volume.size = sectors(folder, "size");
  volume.readOnly = flag(folder, "ro");
  std::string diskFolder = folder;
  if (volume.kind == "partition")
  {
    volume.number = readNumber(folder, "partition");
    volume.start = sectors(folder, "start");
    if (std::string const disk = diskOf(folder); !disk.empty())
    {
      volume.parent = pathOf(disk);
      diskFolder = below(OzfPathname(folder).directory(), disk);
    }
  }
  for (auto const& part : namesIn(below(folder, "slaves"), "collectVolume"))
    volume.parts.push_back(pathOf(part));
  volume.mapName = readFact(folder, "dm/name").value_or("");
  volume.removable = flag(diskFolder, "removable");
  bool const madeUp = isMadeUp(diskFolder);
  if (!madeUp)
    volume.rotational = flag(diskFolder, "queue/rotational");
  volume.sectorSize = readNumber(diskFolder, "queue/logical_block_size");

  auto const identity = identities.find(kernelName, deviceNumber(folder));
  volume.content = identity.content;
  volume.uuid = identity.uuid;
  volume.label = identity.label;
  volume.partitionUuid = identity.partitionUuid;
  volume.partitionLabel = identity.partitionLabel;
  if (!madeUp)
    volume.vendor = readFact(diskFolder, "device/vendor").value_or("");
  volume.model = readFact(diskFolder, "device/model").value_or(identity.model);
  volume.serial = readFact(diskFolder, "device/serial").value_or(identity.serial);
  return volume;
}

} // namespace

std::vector<Volume> collectVolumes(std::string const& root)
{
  std::string const folder = below(root, "sys/class/block");
  DeviceIdentities const identities(root);
  std::vector<Volume> volumes;
  for (auto const& name : namesIn(folder, "collectVolumes"))
  {
    Volume volume = collectVolume(below(folder, name), name, identities);
    if (volume.size != 0)
      volumes.push_back(std::move(volume));
  }
  return volumes;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
