// What is known of a block device without asking the device.

#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

struct udev;

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Empty members are not known. Bytes as they were found, not always UTF-8.
struct DeviceIdentity
{
  std::string uuid;
  std::string label;
  std::string content; // what udev recognised on the device: "ext4", "LVM2_member", "swap"
  std::string partitionUuid;
  std::string partitionLabel;
  std::string model;
  std::string serial;
};

// Looks devices up in udev's database, and, for what it does not say, in the
// links that udev keeps below dev/disk. The database describes this machine
// only, so a root other than "/" has the links alone. No device is opened.
// Used by one thread.
class DeviceIdentities
{
public:
  explicit DeviceIdentities(std::string const& root);
  ~DeviceIdentities();
  DeviceIdentities(DeviceIdentities const&) = delete;
  DeviceIdentities& operator=(DeviceIdentities const&) = delete;

  // kernelName as in sys/class/block: "sda1", "dm-0". A number of 0 stands for
  // one that is not known.
  DeviceIdentity find(std::string const& kernelName, dev_t number) const;

private:
  using Links = std::map<std::string, std::string>; // kernel name to what the links say

  void readLinks(std::string const& root, std::string const& folder, Links& links) const;

  struct UdevRelease
  {
    void operator()(udev* handle) const;
  };

  std::unique_ptr<udev, UdevRelease> m_udev; // null when there is none to ask
  Links m_uuids;
  Links m_labels;
  Links m_partitionUuids;
  Links m_partitionLabels;
};

// The kernel's name of the device that a path such as "/dev/mapper/vg-home"
// stands for; empty when the path does not lie in /dev.
std::string kernelNameOf(std::string const& root, std::string const& devicePath);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
