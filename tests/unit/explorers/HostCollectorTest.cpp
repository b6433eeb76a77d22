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
}
