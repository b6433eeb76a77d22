#include "explorers/DeviceIdentities.h"

#include "explorers/FactFiles.h"
#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using ExplorerTesting::fixture;

TEST(DeviceIdentities, linksTellWhatADeviceIsCalled)
{
  DeviceIdentities const identities(fixture("server"));
  auto const first = identities.find("sda1", 0);
  EXPECT_EQ("4e0d6f8a-51c2-4b8e-a1f5-0c9d8e7b6a5f", first.uuid);
  EXPECT_EQ("boot", first.label);
  EXPECT_EQ("5e5e5e5e-01", first.partitionUuid);
  EXPECT_EQ("", first.partitionLabel);
  EXPECT_EQ("EFI System", identities.find("sda2", 0).partitionLabel);
}

// The database is udev's own format, so this holds a record of it up to the
// library, in a mount namespace of a child process.
TEST(DeviceIdentities, theDatabaseOfThisHostComesFirstAndNeverDescribesARecordedTree)
{
  std::filesystem::directory_iterator const devices("/sys/class/block");
  if (geteuid() != 0 || devices == std::filesystem::directory_iterator())
  {
    std::cout << "Needs root, who alone makes mounts, and a block device; the tests of the links "
                 "run without.\n";
    return;
  }
  std::string const name = devices->path().filename().string();
  auto const text = readFact("/sys/class/block/" + name, "dev");
  ASSERT_TRUE(text);
  unsigned high = 0;
  unsigned low = 0;
  ASSERT_EQ(2, std::sscanf(text->c_str(), "%u:%u", &high, &low));

  EXPECT_EXIT(
      {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
          std::exit(3);
        std::filesystem::create_directories("/run/udev/data");
        writeText("/run/udev/data/b" + *text, "I:1\nE:ID_FS_UUID=1234\nE:ID_FS_TYPE=xfs\n"
                                              "E:ID_FS_LABEL=a_b\nE:ID_FS_LABEL_ENC=a\\x20b\n"
                                              "E:ID_SERIAL_SHORT=S1\nE:ID_MODEL=M_1\n");
        auto const live = DeviceIdentities("/").find(name, makedev(high, low));
        auto const recorded = DeviceIdentities(fixture("damaged")).find(name, makedev(high, low));
        bool const right = live.uuid == "1234" && live.content == "xfs" && live.label == "a b" &&
                           live.serial == "S1" && live.model == "M_1" && recorded.uuid.empty() &&
                           recorded.content.empty();
        std::exit(right ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(DeviceIdentities, anUnknownDeviceHasNoNames)
{
  DeviceIdentities const identities(fixture("server"));
  EXPECT_EQ("", identities.find("", 0).uuid);
  EXPECT_EQ("", identities.find("sdzz", 0).uuid);
}

TEST(DeviceIdentities, aFolderWithoutLinksIsNoFailure)
{
  TempDir const dir;
  EXPECT_EQ("", DeviceIdentities(dir.path()).find("sda1", 0).uuid);
  EXPECT_EQ("", DeviceIdentities("/").find("no such device", 0).uuid);
}

TEST(DeviceIdentities, kernelNamesComeFromPathsInTheDeviceFolderOnly)
{
  EXPECT_EQ("dm-0", kernelNameOf(fixture("server"), "/dev/mapper/vg0-root"));
  EXPECT_EQ("sda1", kernelNameOf(fixture("server"), "/dev/sda1"));
  EXPECT_EQ("", kernelNameOf(fixture("server"), "filer.example.net:/dev/sda1"));
  EXPECT_EQ("", kernelNameOf(fixture("server"), "tmpfs"));
}
