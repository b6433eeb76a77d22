#include "explorers/FilesystemCollector.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gmock/gmock.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <mutex>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using ExplorerTesting::fixture;
using testing::ElementsAre;

namespace
{

// Notes who is measured.
struct Recorder
{
  std::mutex mutex;
  std::vector<std::string> measured;

  SpaceProbe probe()
  {
    return SpaceProbe(
        [this](std::string const& path, dev_t device) -> std::optional<Space>
        {
          std::lock_guard const guard(mutex);
          measured.push_back(path);
          return Space{1000 + minor(device), 10, 20, 30, 3};
        },
        std::chrono::seconds(60), std::chrono::seconds(60));
  }
};

std::vector<Filesystem> collect(std::string const& root, Recorder& recorder)
{
  auto probe = recorder.probe();
  return collectFilesystems(root, probe);
}

Filesystem find(std::vector<Filesystem> const& mounts, std::string const& mountPoint)
{
  for (auto const& mount : mounts)
    if (mount.mountPoint == mountPoint)
      return mount;
  ADD_FAILURE() << "no mount at " << mountPoint;
  return {};
}

void writeTable(TempDir const& dir, std::string const& text)
{
  std::filesystem::create_directories(dir / "proc/self");
  writeText(dir / "proc/self/mountinfo", text);
}

} // namespace

TEST(FilesystemCollector, listsEveryMountInTheOrderOfTheTable)
{
  Recorder recorder;
  auto const mounts = collect(fixture("server"), recorder);
  ASSERT_EQ(25U, mounts.size());
  EXPECT_EQ("/sys", mounts.front().mountPoint);
  EXPECT_EQ("/mnt/tab\tand\\slash", mounts.back().mountPoint);
}

TEST(FilesystemCollector, aLocalFileSystemHasAllItsFacts)
{
  Recorder recorder;
  auto const boot = find(collect(fixture("server"), recorder), "/boot");
  EXPECT_EQ("ext4", boot.type);
  EXPECT_EQ(MountKind::Local, boot.kind);
  EXPECT_EQ("/dev/sda1", boot.source);
  EXPECT_EQ("/", boot.root);
  EXPECT_EQ(makedev(8, 1), boot.device);
  EXPECT_EQ("rw,relatime", boot.options);
  EXPECT_EQ("4e0d6f8a-51c2-4b8e-a1f5-0c9d8e7b6a5f", boot.uuid);
  EXPECT_EQ("boot", boot.label);
  ASSERT_TRUE(boot.space);
  EXPECT_EQ((Space{1001, 10, 20, 30, 3}), *boot.space);
}

TEST(FilesystemCollector, measuresFileSystemsThatAreLocalOrInMemoryAndNothingElse)
{
  Recorder recorder;
  collect(fixture("server"), recorder);
  EXPECT_THAT(recorder.measured, ElementsAre("/", "/boot", "/boot/efi", "/home", "/srv/old photos",
                                             "/srv/album", "/tmp", "/mnt/tab\tand\\slash"));
}

TEST(FilesystemCollector, aLocalFileSystemBehindADeadShareIsListedAndNotTouched)
{
  Recorder recorder;
  auto const disk = find(collect(fixture("server"), recorder), "/mnt/share/disk");
  EXPECT_EQ(MountKind::Local, disk.kind);
  EXPECT_FALSE(disk.space);
}

TEST(FilesystemCollector, aFolderWhoseNameOnlyBeginsLikeAShareIsNotBehindIt)
{
  TempDir const dir;
  writeTable(dir, "50 26 0:45 / /mnt/a rw - nfs4 filer.example.net:/a rw\n"
                  "51 26 8:1 / /mnt/ab rw - ext4 /dev/sda1 rw\n"
                  "52 26 8:2 / /mnt rw - ext4 /dev/sda2 rw\n");
  Recorder recorder;
  collect(dir.path(), recorder);
  EXPECT_THAT(recorder.measured, ElementsAre("/mnt/ab", "/mnt"));
}

TEST(FilesystemCollector, aShareMountedOverALocalFileSystemProtectsIt)
{
  TempDir const dir;
  writeTable(dir, "50 26 8:1 / /data rw - ext4 /dev/sda1 rw\n"
                  "51 50 0:45 / /data rw - nfs filer.example.net:/a rw\n");
  Recorder recorder;
  EXPECT_EQ(2U, collect(dir.path(), recorder).size());
  EXPECT_TRUE(recorder.measured.empty());
}

TEST(FilesystemCollector, aRootOnTheNetworkLeavesLocalDisksInReach)
{
  TempDir const dir;
  writeTable(dir, "26 1 0:45 / / rw - nfs filer.example.net:/root rw\n"
                  "51 26 8:1 / /scratch rw - ext4 /dev/sda1 rw\n");
  Recorder recorder;
  collect(dir.path(), recorder);
  EXPECT_THAT(recorder.measured, ElementsAre("/scratch"));
}

TEST(FilesystemCollector, aLocalRootUnderADeadRootIsNotTouched)
{
  TempDir const dir;
  writeTable(dir, "1 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                  "26 1 0:45 / / rw - nfs filer.example.net:/root rw\n");
  Recorder recorder;
  collect(dir.path(), recorder);
  EXPECT_TRUE(recorder.measured.empty());
}

TEST(FilesystemCollector, escapesInMountPointsAreUndone)
{
  Recorder recorder;
  auto const photos = find(collect(fixture("server"), recorder), "/srv/old photos");
  EXPECT_EQ("old photos", photos.label);
  EXPECT_EQ("0d15ea5e-aaaa-4bbb-8ccc-ddddeeeeffff", photos.uuid);
}

TEST(FilesystemCollector, aBindMountSaysWhichFolderIsMounted)
{
  Recorder recorder;
  auto const mounts = collect(fixture("server"), recorder);
  EXPECT_EQ("/album", find(mounts, "/srv/album").root);
  EXPECT_EQ("/@home", find(mounts, "/home").root);
}

TEST(FilesystemCollector, identifiersAreFoundThroughTheDeviceMapperAndForMultiDeviceTypes)
{
  Recorder recorder;
  auto const mounts = collect(fixture("server"), recorder);
  EXPECT_EQ("7a3c1d52-0b1e-4f0a-9d1c-5b6f0a1c2d3e", find(mounts, "/").uuid);
  EXPECT_EQ("c0ffee00-1111-4222-8333-444455556666", find(mounts, "/home").uuid);
  EXPECT_EQ("caf\xe9", find(mounts, "/home").label);
}

TEST(FilesystemCollector, damagedLinesAreLeftOutAndNoted)
{
  Recorder recorder;
  LogCapture const log;
  auto const mounts = collect(fixture("damaged"), recorder);
  std::vector<std::string> found;
  for (auto const& mount : mounts)
    found.push_back(mount.mountPoint);
  EXPECT_THAT(found, testing::Contains("/"));
  EXPECT_THAT(found, testing::Contains("/after"));
  EXPECT_THAT(found, testing::Not(testing::Contains("/half")));
  EXPECT_THAT(found, testing::Not(testing::Contains("/no separator")));
  EXPECT_NE(std::string::npos, log.text().find("Ignoring line 2 of ")) << log.text();
}

TEST(FilesystemCollector, aTableThatCannotBeReadGivesNoMountsAndALogLine)
{
  TempDir const dir;
  Recorder recorder;
  LogCapture const log;
  EXPECT_TRUE(collect(dir.path(), recorder).empty());
  EXPECT_NE(std::string::npos, log.text().find("1 collectFilesystems: Cannot read the mount table"))
      << log.text();
}

TEST(FilesystemCollector, anEmptyTableGivesNoMounts)
{
  TempDir const dir;
  writeTable(dir, "");
  Recorder recorder;
  EXPECT_TRUE(collect(dir.path(), recorder).empty());
}

TEST(FilesystemCollector, onlyWhatIsKnownToBeLocalIsLocal)
{
  dev_t const disk = makedev(8, 1);
  dev_t const none = makedev(0, 40);
  struct
  {
    char const* type;
    dev_t device;
    MountKind kind;
  } const cases[] = {
      {"ext4", disk, MountKind::Local},        {"xfs", disk, MountKind::Local},
      {"iso9660", disk, MountKind::Local},     {"vfat", disk, MountKind::Local},
      {"btrfs", none, MountKind::Local},       {"zfs", none, MountKind::Local},
      {"nfs", none, MountKind::Network},       {"nfs4", none, MountKind::Network},
      {"cifs", none, MountKind::Network},      {"smb3", none, MountKind::Network},
      {"9p", none, MountKind::Network},        {"fuse.sshfs", none, MountKind::Network},
      {"ceph", none, MountKind::Network},      {"lustre", none, MountKind::Network},
      {"gfs2", disk, MountKind::Network},      {"ocfs2", disk, MountKind::Network},
      {"proc", none, MountKind::Pseudo},       {"sysfs", none, MountKind::Pseudo},
      {"tmpfs", none, MountKind::Memory},      {"overlay", none, MountKind::Pseudo},
      {"cgroup2", none, MountKind::Pseudo},    {"fusectl", none, MountKind::Pseudo},
      {"autofs", none, MountKind::Other},      {"fuse", none, MountKind::Other},
      {"fuse.portal", none, MountKind::Other}, {"fuseblk", disk, MountKind::Other},
      {"virtiofs", none, MountKind::Other},    {"novelfs", none, MountKind::Other},
  };
  for (auto const& one : cases)
    EXPECT_STREQ(toText(one.kind), toText(classifyMount(one.type, one.device))) << one.type;
}

TEST(FilesystemCollector, thisHostHasARootAndAProcessFileSystem)
{
  SpaceProbe probe;
  auto const mounts = collectFilesystems("/", probe);
  EXPECT_EQ("/", find(mounts, "/").mountPoint);
  auto const proc = find(mounts, "/proc");
  EXPECT_EQ(MountKind::Pseudo, proc.kind);
  EXPECT_FALSE(proc.space);
}

TEST(FilesystemCollector, aFileSystemUnderAnotherIsHiddenAndNotMeasured)
{
  TempDir const dir;
  writeTable(dir, "26 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                  "40 26 8:2 / /srv rw - ext4 /dev/sda2 rw\n"
                  "41 40 8:3 / /srv/data rw - ext4 /dev/sda3 rw\n"
                  "42 40 0:50 / /srv rw - tmpfs tmpfs rw\n"
                  "43 42 8:4 / /srv/new rw - ext4 /dev/sda4 rw\n"
                  "44 26 8:5 / /a/b rw - ext4 /dev/sda5 rw\n"
                  "45 26 8:6 / /a rw - ext4 /dev/sda6 rw\n");
  Recorder recorder;
  std::string hidden;
  for (auto const& mount : collect(dir.path(), recorder))
    hidden += mount.hidden ? mount.source + ' ' : "";
  EXPECT_EQ("/dev/sda2 /dev/sda3 /dev/sda5 ", hidden);
  EXPECT_THAT(recorder.measured, ElementsAre("/", "/srv", "/srv/new", "/a"));
}

TEST(FilesystemCollector, mountsThatAreEachOthersParentsEndTheSearch)
{
  TempDir const dir;
  writeTable(dir, "1 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                  "2 3 8:2 / / rw - ext4 /dev/sda2 rw\n"
                  "3 2 8:3 / / rw - ext4 /dev/sda3 rw\n");
  Recorder recorder;
  EXPECT_EQ(3U, collect(dir.path(), recorder).size());
}
