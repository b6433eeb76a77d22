#include "discovery/Peers.h"

#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

TEST(PeersTest, WithoutAFrameworkThereIsNoOrbAndNoName)
{
  Peers const peers;
  LogCapture log;
  EXPECT_EQ(nullptr, peers.findOrb());
  EXPECT_FALSE(peers.isShuttingDown());
  EXPECT_THROW(peers.getOrb(), AssertionFailure);
  EXPECT_TRUE(
      log.has(1, "DiscoveryRepository::getOrb", "Assertion failed: 0 != m_discoveryFramework"))
      << log.text();
  EXPECT_THROW(peers.getOrbServiceName(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryRepository::getOrbServiceName",
                      "Assertion failed: 0 != m_discoveryFramework"))
      << log.text();
  OzfHostname host;
  host.setHostname("far");
  EXPECT_THROW(peers.connect(host, "DiscoveryService"), AssertionFailure);
}

TEST(PeersTest, AFrameworkWithoutAnOrbIsAnotherMistake)
{
  Peers peers;
  peers.setOrb(nullptr);
  LogCapture log;
  EXPECT_THROW(peers.getOrb(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryFramework::getOrb", "Assertion failed: 0 != m_orb"))
      << log.text();
  peers.unsetOrb();
  EXPECT_THROW(peers.getOrb(), AssertionFailure);
  EXPECT_TRUE(
      log.has(1, "DiscoveryRepository::getOrb", "Assertion failed: 0 != m_discoveryFramework"))
      << log.text();
}

TEST(PeersTest, OnlyTheProcessesRepositorySpeaksForTheProcess)
{
  DiscoveryRepository another;
  another.shutdown();
  EXPECT_TRUE(another.isShuttingDown());
  EXPECT_FALSE(getPeers().isShuttingDown());
  getDiscoveryRepository().shutdown();
  EXPECT_TRUE(getPeers().isShuttingDown());
  AutoDereference<DiscoveryFramework> const framework(
      new DiscoveryFramework("", DST_NONE, nullptr, false));
  getDiscoveryRepository().setDiscoveryFramework(framework.get());
  EXPECT_FALSE(getPeers().isShuttingDown());
  EXPECT_TRUE(another.isShuttingDown());
  getDiscoveryRepository().shutdown();
  getDiscoveryRepository().setDiscoveryFramework(nullptr);
}
