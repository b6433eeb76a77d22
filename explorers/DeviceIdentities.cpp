#include "explorers/DeviceIdentities.h"

#include "explorers/FactFiles.h"
#include "ozf/base/OzfPathname.h"

#include <libudev.h>

#include <filesystem>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

std::string property(udev_device* device, char const* name)
{
  char const* const value = udev_device_get_property_value(device, name);
  return value == nullptr ? "" : value;
}

// udev keeps names twice: made harmless, and complete with escapes.
std::string escapedProperty(udev_device* device, char const* escaped, char const* harmless)
{
  std::string const value = property(device, escaped);
  return value.empty() ? property(device, harmless) : std::string(trimmed(decodeHexEscapes(value)));
}

void complete(std::string& value, std::map<std::string, std::string> const& links,
              std::string const& kernelName)
{
  auto const found = links.find(kernelName);
  if (value.empty() && found != links.end())
    value = found->second;
}

struct DeviceRelease
{
  void operator()(udev_device* device) const { udev_device_unref(device); }
};

} // namespace

void DeviceIdentities::UdevRelease::operator()(udev* handle) const { udev_unref(handle); }

DeviceIdentities::DeviceIdentities(std::string const& root)
{
  if (root == "/")
    m_udev.reset(udev_new());
  readLinks(root, "dev/disk/by-uuid", m_uuids);
  readLinks(root, "dev/disk/by-label", m_labels);
  readLinks(root, "dev/disk/by-partuuid", m_partitionUuids);
  readLinks(root, "dev/disk/by-partlabel", m_partitionLabels);
}

DeviceIdentities::~DeviceIdentities() = default;

void DeviceIdentities::readLinks(std::string const& root, std::string const& folder,
                                 Links& links) const
{
  std::error_code error;
  std::filesystem::directory_iterator entry(below(root, folder), error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
  {
    if (auto const target = readLink(entry->path().string()))
      links.emplace(OzfPathname(*target).filename(),
                    decodeHexEscapes(entry->path().filename().string()));
  }
}

DeviceIdentity DeviceIdentities::find(std::string const& kernelName, dev_t number) const
{
  DeviceIdentity identity;
  if (m_udev && number != 0)
  {
    std::unique_ptr<udev_device, DeviceRelease> const device(
        udev_device_new_from_devnum(m_udev.get(), 'b', number));
    if (device)
    {
      identity.uuid = property(device.get(), "ID_FS_UUID");
      identity.label = escapedProperty(device.get(), "ID_FS_LABEL_ENC", "ID_FS_LABEL");
      identity.content = property(device.get(), "ID_FS_TYPE");
      identity.partitionUuid = property(device.get(), "ID_PART_ENTRY_UUID");
      identity.partitionLabel = decodeHexEscapes(property(device.get(), "ID_PART_ENTRY_NAME"));
      identity.model = escapedProperty(device.get(), "ID_MODEL_ENC", "ID_MODEL");
      identity.serial = property(device.get(), "ID_SERIAL_SHORT");
    }
  }
  complete(identity.uuid, m_uuids, kernelName);
  complete(identity.label, m_labels, kernelName);
  complete(identity.partitionUuid, m_partitionUuids, kernelName);
  complete(identity.partitionLabel, m_partitionLabels, kernelName);
  return identity;
}

std::string kernelNameOf(std::string const& root, std::string const& devicePath)
{
  if (devicePath.rfind("/dev/", 0) != 0)
    return {};
  auto const target = readLink(below(root, devicePath.substr(1)));
  return OzfPathname(target ? *target : devicePath).filename();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
