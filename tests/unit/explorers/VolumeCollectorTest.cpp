#include "explorers/VolumeCollector.h"

#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <limits>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using ExplorerTesting::fixture;
using testing::ElementsAre;

namespace
{

Volume find(std::string const& root, std::string const& kernelName)
{
  for (auto const& volume : collectVolumes(root))
    if (volume.kernelName == kernelName)
      return volume;
  ADD_FAILURE() << "no volume " << kernelName;
  return {};
}

} // namespace

TEST(VolumeCollector, listsDevicesWithCapacityByName)
{
  std::vector<std::string> names;
  for (auto const& volume : collectVolumes(fixture("server")))
    names.push_back(volume.kernelName);
  EXPECT_THAT(names, ElementsAre("cciss!c0d0", "dm-0", "loop1", "md0", "nvme0n1", "sda", "sda1",
                                 "sda2", "sda3", "zram0"));
}

TEST(VolumeCollector, tellsWhatKindOfDeviceItIs)
{
  std::string kinds;
  for (auto const& volume : collectVolumes(fixture("server")))
    kinds += volume.kind + ' ';
  EXPECT_EQ("disk mapped loop raid disk disk partition partition partition memory ", kinds);
}

TEST(VolumeCollector, aDiskHasItsHardware)
{
  auto const disk = find(fixture("server"), "sda");
  EXPECT_EQ("/dev/sda", disk.path);
  EXPECT_EQ("", disk.parent);
  EXPECT_EQ(976773168ULL * 512, disk.size);
  EXPECT_EQ("ATA", disk.vendor);
  EXPECT_EQ("Example SSD 500", disk.model);
  EXPECT_EQ(false, disk.readOnly);
  EXPECT_EQ(false, disk.removable);
  EXPECT_EQ(false, disk.rotational);
  EXPECT_EQ(512U, disk.sectorSize);
  EXPECT_FALSE(disk.number);
  EXPECT_EQ("S0123456789", find(fixture("server"), "nvme0n1").serial);
  EXPECT_EQ(true, find(fixture("server"), "md0").rotational);
}

// Its driver has defaults where a disk has facts.
TEST(VolumeCollector, aDiskThatAVirtualMachinesHostMakesUpSaysNothingOfItsMechanicsAndVendor)
{
  namespace fs = std::filesystem;
  TempDir const dir;
  std::string const disk = dir / "sys/class/block/vda";
  for (auto const& folder : {disk + "/queue", disk + "/device", disk + "/vda1",
                             dir / "sys/bus/virtio", dir / "sys/bus/scsi"})
    fs::create_directories(folder);
  writeText(disk + "/size", "2048\n");
  writeText(disk + "/queue/rotational", "1\n");
  writeText(disk + "/device/vendor", "0x1af4\n");
  fs::create_directory_symlink(dir / "sys/bus/virtio", disk + "/device/subsystem");
  auto volume = find(dir.path(), "vda");
  EXPECT_FALSE(volume.rotational);
  EXPECT_EQ("", volume.vendor);

  fs::remove(disk + "/device/subsystem");
  fs::create_directory_symlink(dir / "sys/bus/scsi", disk + "/device/subsystem");
  volume = find(dir.path(), "vda");
  EXPECT_EQ(true, volume.rotational);
  EXPECT_EQ("0x1af4", volume.vendor);
}

TEST(VolumeCollector, aPartitionKnowsItsDiskAndTakesTheHardwareFromIt)
{
  auto const partition = find(fixture("server"), "sda2");
  EXPECT_EQ("/dev/sda", partition.parent);
  EXPECT_EQ(2U, partition.number);
  EXPECT_EQ(999424ULL * 512, partition.start);
  EXPECT_EQ(204800ULL * 512, partition.size);
  EXPECT_EQ(true, partition.readOnly);
  EXPECT_EQ("Example SSD 500", partition.model);
  EXPECT_EQ(512U, partition.sectorSize);
  EXPECT_EQ("1A2B-3C4D", partition.uuid);
  EXPECT_EQ("EFI System", partition.partitionLabel);
}

TEST(VolumeCollector, aMappedDeviceNamesItselfAndItsParts)
{
  auto const mapped = find(fixture("server"), "dm-0");
  EXPECT_EQ("vg0-root", mapped.mapName);
  EXPECT_THAT(mapped.parts, ElementsAre("/dev/sda3"));
  EXPECT_EQ("7a3c1d52-0b1e-4f0a-9d1c-5b6f0a1c2d3e", mapped.uuid);
}

TEST(VolumeCollector, aSlashInADevicesNameIsRestored)
{
  EXPECT_EQ("/dev/cciss/c0d0", find(fixture("server"), "cciss!c0d0").path);
}

TEST(VolumeCollector, damagedValuesAreLeftOutAndHugeOnesDoNotWrapRound)
{
  auto const huge = find(fixture("damaged"), "sdx");
  EXPECT_EQ(std::numeric_limits<std::uint64_t>::max(), huge.size);
  EXPECT_FALSE(huge.readOnly);
  EXPECT_FALSE(huge.removable);
  auto const unknown = find(fixture("damaged"), "sdy");
  EXPECT_FALSE(unknown.size);
  EXPECT_EQ(true, unknown.readOnly);
}

TEST(VolumeCollector, aHostWithoutBlockDevicesHasNoVolumes)
{
  TempDir const dir;
  EXPECT_TRUE(collectVolumes(dir.path()).empty());
}

TEST(VolumeCollector, everyVolumeOfThisHostHasAPath)
{
  for (auto const& volume : collectVolumes("/"))
    EXPECT_EQ(0U, volume.path.rfind("/dev/", 0)) << volume.kernelName;
}
