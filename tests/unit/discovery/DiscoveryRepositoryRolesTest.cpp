// The role of a process that has no framework: what its configuration says.

#include "discovery/DiscoveryRepository.h"

#include "discovery/DiscoveryLog.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct DiscoveryRepositoryRolesTest : testing::Test
{
  TempDir root;
  DiscoveryRepository repository;

  void configure(std::string const& master)
  {
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    std::filesystem::create_directories(root / "etc");
    writeText(root / "etc/tq.conf", "SERVER = " + master + "\nCLIENT_NAME = here\n");
  }
};

TEST_F(DiscoveryRepositoryRolesTest, ElsewhereThanOnTheMasterTheTypeIsNotAskedFor)
{
  configure("elsewhere");
  LogCapture log;
  EXPECT_FALSE(repository.isGenericDSOnMaster());
  EXPECT_EQ(std::string::npos, log.text().find("Assertion failed")) << log.text();
}

TEST_F(DiscoveryRepositoryRolesTest, OnTheMasterTheTypeNeedsAFramework)
{
  configure("here");
  ASSERT_TRUE(repository.isMaster());
  LogCapture log;
  EXPECT_THROW(repository.isGenericDSOnMaster(), AssertionFailure);
  EXPECT_TRUE(
      log.has(1, "DiscoveryRepository::getDSType", "Assertion failed: 0 != m_discoveryFramework"))
      << log.text();
}

} // namespace
