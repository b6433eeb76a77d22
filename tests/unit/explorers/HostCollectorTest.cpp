#include "explorers/HostCollector.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <filesystem>
#include <limits>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using ExplorerTesting::fixture;

TEST(HostCollector, readsARecordedHost)
{
  auto const host = collectHost(fixture("server"));
  EXPECT_EQ("backup-one", host.hostName);
  EXPECT_EQ("Debian GNU/Linux 12 (bookworm)", host.osName);
  EXPECT_EQ("debian", host.osId);
  EXPECT_EQ("12", host.osVersion);
  EXPECT_EQ("Linux", host.kernelName);
  EXPECT_EQ("6.1.0-28-amd64", host.kernelRelease);
  EXPECT_EQ("#1 SMP PREEMPT_DYNAMIC Debian 6.1.119-1", host.kernelVersion);
  EXPECT_EQ("x86_64", host.architecture);
  EXPECT_EQ("Example Processor E5 @ 2.40GHz", host.processorModel);
  EXPECT_EQ(4U, host.processors);
  EXPECT_EQ(16270264ULL * 1024, host.memory);
  EXPECT_EQ(2097148ULL * 1024, host.swap);
  ASSERT_TRUE(host.bootTime);
  EXPECT_EQ(1767261600, host.bootTime->seconds());
  EXPECT_EQ("9d2f6a8c41e74b0f8a3c5d7e6f102b34", host.machineId);
  EXPECT_EQ("5f0c2b1a-9d8e-4c7b-a6f5-0123456789ab", host.bootId);
  EXPECT_EQ("Europe/Berlin", host.timeZone);
  EXPECT_EQ(2U, host.sockets);
  EXPECT_EQ(2U, host.cores);
  EXPECT_EQ("none", host.virtualization.machine);
  EXPECT_EQ("none", host.virtualization.container);
  EXPECT_EQ("Example Machines", host.vendor);
  EXPECT_EQ("Rack Server R1", host.product);
  EXPECT_EQ("Example Firmware", host.firmwareVendor);
  EXPECT_EQ("2.19.0", host.firmwareVersion);
}

TEST(HostCollector, serialNumbersAreReadOnlyWhenTheyAreAskedFor)
{
  auto const reserved = collectHost(fixture("server"));
  EXPECT_EQ("", reserved.serialNumber + reserved.productUuid);
  auto const open = collectHost(fixture("server"), Secrets::Told);
  EXPECT_EQ("EX4711", open.serialNumber);
  EXPECT_EQ("4c4c4544-0000-2010-8020-80c04f202020", open.productUuid);
}

TEST(HostCollector, aMachineIdentifierIsTakenOnlyWhenItIsOne)
{
  TempDir const dir;
  std::filesystem::create_directories(dir / "etc");
  std::filesystem::create_directories(dir / "var/lib/dbus");
  writeText(dir / "var/lib/dbus/machine-id", "0123456789abcdef0123456789abcdef\n");
  EXPECT_EQ("0123456789abcdef0123456789abcdef", readMachineId(dir.path()));
  for (char const* const bad :
       {"", "uninitialized\n", "0123456789ABCDEF0123456789abcdef\n",
        "0123456789abcdef0123456789abcde\n", "0123456789abcdef0123456789abcdef0\n", "<\x1b[31m>\n"})
  {
    writeText(dir / "etc/machine-id", bad);
    EXPECT_EQ("0123456789abcdef0123456789abcdef", readMachineId(dir.path())) << bad;
  }
  writeText(dir / "etc/machine-id", "fedcba9876543210fedcba9876543210\n");
  EXPECT_EQ("fedcba9876543210fedcba9876543210", readMachineId(dir.path()));
}

TEST(HostCollector, aCopiedTimeZoneFileHasTheNameThatTheDistributorWroteDown)
{
  TempDir const dir;
  std::filesystem::create_directories(dir / "etc");
  writeText(dir / "etc/localtime", "TZif2");
  EXPECT_EQ("", collectHost(dir.path()).timeZone);
  writeText(dir / "etc/timezone", "Asia/Tokyo\n");
  EXPECT_EQ("Asia/Tokyo", collectHost(dir.path()).timeZone);
}

TEST(HostCollector, aMachineWithADeviceTreeTellsItsModel)
{
  TempDir const dir;
  std::filesystem::create_directories(dir / "proc/device-tree");
  writeText(dir / "proc/device-tree/model", std::string("Example Board Rev 1\0", 20));
  EXPECT_EQ("Example Board Rev 1", collectHost(dir.path()).product);
}

TEST(HostCollector, anEmptyTreeGivesNoFacts)
{
  TempDir const dir;
  LogCapture const log(1);
  auto const host = collectHost(dir.path());
  EXPECT_EQ("", host.hostName + host.osName + host.kernelRelease + host.architecture);
  EXPECT_FALSE(host.processors);
  EXPECT_FALSE(host.memory);
  EXPECT_FALSE(host.bootTime);
  EXPECT_EQ("", log.text());
}

TEST(HostCollector, damagedFilesGiveTheFactsThatAreWhole)
{
  auto const host = collectHost(fixture("damaged"));
  EXPECT_EQ("A \"quoted\" & <marked> \xff name", host.osName);
  EXPECT_EQ("odd", host.osId);
  EXPECT_EQ("", host.osVersion);
  EXPECT_EQ("", host.hostName);
  EXPECT_EQ("", host.processorModel);
  EXPECT_FALSE(host.processors);
  EXPECT_FALSE(host.bootTime);
  EXPECT_EQ(std::numeric_limits<std::uint64_t>::max(), host.memory);
  EXPECT_FALSE(host.swap);
  EXPECT_EQ("", host.machineId + host.timeZone + host.product);
  EXPECT_EQ("\xffVendor <&> \x1b[31m\x07", host.vendor);
  EXPECT_FALSE(host.sockets);
  EXPECT_FALSE(host.cores);
}

TEST(HostCollector, theDistributorsFileStandsInForAMissingLink)
{
  TempDir const dir;
  std::filesystem::create_directories(dir / "usr/lib");
  writeText(dir / "usr/lib/os-release", "NAME=Plain\nVERSION_ID='3.1'\n");
  auto const host = collectHost(dir.path());
  EXPECT_EQ("Plain", host.osName);
  EXPECT_EQ("3.1", host.osVersion);
}

TEST(HostCollector, thisHostHasAKernelAndMemory)
{
  auto const host = collectHost("/");
  EXPECT_EQ("Linux", host.kernelName);
  EXPECT_NE("", host.architecture);
  ASSERT_TRUE(host.memory);
  EXPECT_LT(1U << 20U, *host.memory);
  ASSERT_TRUE(host.processors);
  EXPECT_LT(0U, *host.processors);
  EXPECT_EQ(36U, host.bootId.size());
  EXPECT_TRUE(host.machineId.empty() || host.machineId.size() == 32) << host.machineId;
  EXPECT_LE(host.cores.value_or(0), *host.processors);
  EXPECT_EQ("", host.serialNumber);
}
