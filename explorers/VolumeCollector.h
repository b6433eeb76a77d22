// The block devices of a host and their partitions.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Empty and absent members are not known or do not apply. Sizes in bytes.
struct Volume
{
  std::string kernelName;         // "sda1"
  std::string path;               // "/dev/sda1"
  std::string kind;               // "disk", "partition", "mapped", "raid", "loop", "memory"
  std::string parent;             // of a partition: the path of the disk it lies on
  std::vector<std::string> parts; // the paths of the devices it is put together from
  std::string mapName;            // of a mapped device
  std::optional<std::uint64_t> size;
  std::optional<std::uint64_t> start; // of a partition: from the beginning of its disk
  std::optional<std::uint64_t> number;
  std::optional<std::uint64_t> sectorSize;
  std::optional<bool> readOnly;
  std::optional<bool> removable;
  std::optional<bool> rotational;
  std::string content; // what is on it: "ext4", "LVM2_member"
  std::string uuid;
  std::string label; // any bytes
  std::string partitionUuid;
  std::string partitionLabel;
  std::string vendor;
  std::string model;
  std::string serial;
};

// From root/sys/class/block, sorted by kernel name. Devices without capacity
// (a loop device without a file, a drive without a medium) are left out. No
// device is opened.
std::vector<Volume> collectVolumes(std::string const& root);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
