#include "discovery/DiscoverySvc.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryService_i.h"
#include "ozf/config/Configuration.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include <gtest/gtest.h>
#include <omniORB4/CORBA.h>
#include <omniORB4/internal/orbParameters.h>

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;

namespace
{

class OpenedService : public svc::DiscoverySvc
{
public:
  explicit OpenedService(bool arg = false) : DiscoverySvc(arg) {}
  using DiscoverySvc::doExit;
  using DiscoverySvc::doInit;
  using DiscoverySvc::doRun;
  using DiscoverySvc::doShouldStart;
  using DiscoverySvc::doStop;
};

struct DiscoverySvcTest : testing::Test
{
  TempDir root;
  LogCapture log;

  void SetUp() override
  {
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    std::filesystem::create_directories(root / "etc");
  }
  void configure(std::string const& text)
  {
    writeText(root / "etc/tq.conf", text);
    reloadConfiguration();
  }
};

TEST_F(DiscoverySvcTest, TheServiceHasItsNames)
{
  OpenedService service;
  EXPECT_EQ("DiscoveryService", service.getServiceName());
  EXPECT_EQ("Discovery Service", service.getDescription());
  EXPECT_TRUE(service.getOrb().isEvictorEnabled());
  EXPECT_EQ(400, svc::DISCOVERY_ORIGINATOR);
}

TEST_F(DiscoverySvcTest, ItsArgumentIsHandedOnAsItIs)
{
  for (bool const arg : {false, true})
    EXPECT_EQ(arg, OpenedService(arg).isDebug());
}

TEST_F(DiscoverySvcTest, AnAbsentKeyStartsTheService)
{
  configure("SERVER = here\n");
  OpenedService service;
  EXPECT_TRUE(service.doShouldStart());
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(DiscoverySvcTest, AMissingConfigurationStartsTheService)
{
  OpenedService service;
  EXPECT_TRUE(service.doShouldStart());
  EXPECT_TRUE(log.has(1, "DiscoverySvc::doShouldStart", "Failed to read config")) << log.text();
}

TEST_F(DiscoverySvcTest, OnlyAnExplicitFalseKeepsTheServiceFromStarting)
{
  OpenedService service;
  for (char const* const value : {"true", "yes", "maybe", ""})
  {
    configure(std::string("REPORT_CLIENT_DISCOVERIES = ") + value + "\n");
    EXPECT_TRUE(service.doShouldStart()) << value;
  }
  configure("REPORT_CLIENT_DISCOVERIES = FALSE\n");
  EXPECT_FALSE(service.doShouldStart());
  EXPECT_TRUE(log.has(4, "DiscoverySvc::doShouldStart",
                      "Shutting down tqdisco as directed by REPORT_CLIENT_DISCOVERIES=FALSE"))
      << log.text();
}

TEST_F(DiscoverySvcTest, AFrameworkThatCannotBeSetUpLeavesTheServiceUp)
{
  configure("SERVER = here\nCLIENT_NAME = here\n");
  OpenedService service; // its ORB was never brought up
  EXPECT_EQ(0, service.doInit());
  EXPECT_TRUE(log.has(1, "DiscoverySvc::doInit", "Failed to initialize the discovery framework"))
      << log.text();
  EXPECT_EQ(0, service.doRun());
  EXPECT_EQ(0, service.doStop());
  EXPECT_EQ(0, service.doExit());
}

TEST_F(DiscoverySvcTest, StoppingWithoutAFrameworkDoesNothing)
{
  OpenedService service;
  EXPECT_EQ(0, service.doStop());
  EXPECT_EQ(0, service.doExit());
}

TEST_F(DiscoverySvcTest, InitPutsTheTimersOnTheOrbsReactorAndGivesCallsThirtySeconds)
{
  unsigned short const port = freePort();
  configure("SERVER = here\nCLIENT_NAME = here\nHOST_ADDRESS.here = 127.0.0.1\n"
            "ORB_BIND = 127.0.0.1\nORB_PORT.DiscoveryService = " +
            std::to_string(port) + "\n");
  OpenedService service;
  ASSERT_TRUE(service.getOrb().init());
  ASSERT_EQ(0, service.getOrb().run(0));
  service.getOrb().setRequestTimeout(ACE_Time_Value(7));
  ASSERT_EQ(0, service.doInit()) << log.text();
  EXPECT_EQ(service.getOrb().getReactor(), getAceReactor());
  // The wrapper does not show what it set.
  EXPECT_EQ(30u, omni::orbParameters::clientCallTimeOutPeriod.s);
  EXPECT_EQ(0u, omni::orbParameters::clientCallTimeOutPeriod.ns);
  EXPECT_EQ(root / "db/discovery/Update.lock",
            std::filesystem::exists(root / "db/discovery/Update.lock")
                ? root / "db/discovery/Update.lock"
                : std::string("missing"));

  Evictor& evictor = service.getOrb().getEvictor();
  for (int i = 0; i < 1025; ++i)
  {
    PortableServer::ServantBase_var const servant(new svc::Remote::DiscoveryService_i);
    CORBA::OctetSeq_var const id = evictor.activate(servant.in());
    evictor.addObject(ACE_Time_Value(300), service.getOrb().getEvictingPOA(), id.in(), {});
    EXPECT_EQ(static_cast<std::size_t>(std::min(i + 1, 1024)), evictor.size());
  }

  EXPECT_EQ(0, service.doStop());
  EXPECT_EQ(0, service.doExit());
  EXPECT_EQ(nullptr, getAceReactor());
  service.getOrb().shutdown();
}

} // namespace
