#include "ozf/orb/Evictor.h"

#include "ozf/orb/ConnectionTable.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ProbeServant.h"

#include <set>

using namespace Quillon::Tessarine::Ozf;

namespace
{

class EvictorTest : public testing::Test
{
protected:
  explicit EvictorTest(long capacity = 0) : orb(1, "", "evicting", 1, capacity) {}

  void SetUp() override
  {
    ASSERT_TRUE(orb.init());
    ASSERT_EQ(orb.run(0), 0);
    useClock();
  }
  void TearDown() override
  {
    // The clock is this object's.
    if (orb.getReactor() != nullptr)
      orb.getEvictor().setClock({});
    orb.shutdown();
    EXPECT_EQ(ProbeServant::alive, 0);
  }

  void useClock()
  {
    orb.getEvictor().setClock([this]
                              { return std::chrono::steady_clock::time_point(m_now.load()); });
  }
  void advance(int seconds) { m_now = m_now.load() + std::chrono::seconds(seconds); }

  struct Active
  {
    OrbTest::Probe_var probe;
    CORBA::OctetSeq_var id;
  };
  Active activate(int timeout, Gate* gate = nullptr)
  {
    auto* const servant = new ProbeServant;
    PortableServer::ServantBase_var const keeper = servant;
    servant->gate = gate;
    Active active;
    CORBA::Object_var object =
        orb.activateEvictable(servant, OrbTest::Probe::_PD_repoId, active.id.out());
    active.probe = OrbTest::Probe::_narrow(object);
    if (timeout > 0)
      orb.getEvictor().addObject(ACE_Time_Value(timeout), orb.getEvictingPOA(), active.id.in(),
                                 CORBA::OctetSeq());
    return active;
  }
  static bool answers(Active const& active)
  {
    try
    {
      CORBA::String_var const answer = active.probe->echo("x");
      return true;
    }
    catch (CORBA::OBJECT_NOT_EXIST const&)
    {
      return false;
    }
  }

  ProductRoot root{""};
  Orb orb;

private:
  std::atomic<std::chrono::nanoseconds> m_now{std::chrono::hours(1)};
};

class CrowdedEvictorTest : public EvictorTest
{
protected:
  CrowdedEvictorTest() : EvictorTest(3) {}
};

} // namespace

TEST_F(EvictorTest, dropsWhatWasIdleForItsTimeout)
{
  auto const active = activate(300);
  advance(299);
  orb.getEvictor().evictIdle();
  EXPECT_EQ(orb.getEvictor().size(), 1U);
  advance(1);
  orb.getEvictor().evictIdle();
  EXPECT_EQ(orb.getEvictor().size(), 0U);
  EXPECT_EQ(ProbeServant::alive, 0);
  EXPECT_FALSE(answers(active));
}

TEST_F(EvictorTest, everyCallCountsAsUse)
{
  auto const active = activate(300);
  advance(299);
  EXPECT_TRUE(answers(active));
  advance(299);
  orb.getEvictor().evictIdle();
  EXPECT_TRUE(answers(active));
}

TEST_F(EvictorTest, theOrbEvictsByItself)
{
  auto const active = activate(300);
  advance(300);
  EXPECT_TRUE(eventually([this] { return orb.getEvictor().size() == 0; }));
}

TEST_F(EvictorTest, isNeverIdleBeforeItHasATimeout)
{
  auto const active = activate(0);
  advance(1000000);
  orb.getEvictor().evictIdle();
  EXPECT_TRUE(answers(active));
}

TEST_F(EvictorTest, keepsAServantWhoseCallIsInProgress)
{
  Gate gate;
  auto const active = activate(300, &gate);
  std::thread caller([&] { active.probe->waitForGate(); });
  ASSERT_TRUE(gate.awaitArrival());
  advance(1000);
  orb.getEvictor().evictIdle();
  EXPECT_EQ(orb.getEvictor().size(), 1U);
  gate.open();
  caller.join();
  // The end of the call is use as well.
  orb.getEvictor().evictIdle();
  EXPECT_TRUE(answers(active));
}

TEST_F(EvictorTest, removalWaitsForNoCallButTheServantLivesThroughIt)
{
  Gate gate;
  auto const active = activate(300, &gate);
  std::thread caller([&] { active.probe->waitForGate(); });
  ASSERT_TRUE(gate.awaitArrival());
  EXPECT_TRUE(orb.getEvictor().removeObject(active.id.in(), true, true));
  EXPECT_EQ(ProbeServant::alive, 1);
  EXPECT_FALSE(answers(active));
  gate.open();
  caller.join();
  EXPECT_EQ(ProbeServant::alive, 0);
}

TEST_F(EvictorTest, removalTellsWhetherTheIdWasKnown)
{
  auto const active = activate(300);
  EXPECT_TRUE(orb.getEvictor().removeObject(active.id.in(), true, true));
  EXPECT_EQ(ProbeServant::alive, 0);
  EXPECT_FALSE(answers(active));
  EXPECT_FALSE(orb.getEvictor().removeObject(active.id.in(), true, true));
  EXPECT_FALSE(orb.getEvictor().removeObject(CORBA::OctetSeq(), true, true));
}

TEST_F(EvictorTest, addObjectRefusesAnUnknownId)
{
  EXPECT_THROW(orb.getEvictor().addObject(ACE_Time_Value(1), orb.getEvictingPOA(),
                                          CORBA::OctetSeq(), CORBA::OctetSeq()),
               CORBA::OBJECT_NOT_EXIST);
}

TEST_F(EvictorTest, idsNeverRepeatAndCannotBeGuessed)
{
  std::set<std::string> ids;
  std::set<std::string> randomParts;
  for (int i = 0; i < 100; ++i)
  {
    auto const active = activate(300);
    std::string const id(reinterpret_cast<char const*>(active.id->get_buffer()),
                         active.id->length());
    ASSERT_EQ(id.size(), 16U);
    ids.insert(id);
    randomParts.insert(id.substr(8));
    orb.getEvictor().removeObject(active.id.in(), true, true);
  }
  EXPECT_EQ(ids.size(), 100U);
  EXPECT_EQ(randomParts.size(), 100U);
}

TEST_F(EvictorTest, shutdownDropsEverythingAndTakesNothingInAfterwards)
{
  auto const timed = activate(300);
  auto const untimed = activate(0);
  orb.getEvictor().shutdown();
  orb.getEvictor().shutdown();
  EXPECT_EQ(ProbeServant::alive, 0);
  EXPECT_FALSE(answers(timed));
  EXPECT_FALSE(answers(untimed));
  EXPECT_THROW(activate(300), CORBA::TRANSIENT);
  EXPECT_EQ(ProbeServant::alive, 0);
}

TEST_F(CrowdedEvictorTest, dropsTheOneIdleLongestWhenFull)
{
  LogCapture log(1);
  auto const first = activate(300);
  advance(1);
  auto const second = activate(300);
  advance(1);
  auto const third = activate(300);
  advance(1);
  EXPECT_TRUE(answers(first));
  advance(1);
  auto const fourth = activate(300);
  EXPECT_TRUE(answers(first));
  EXPECT_FALSE(answers(second));
  EXPECT_TRUE(answers(third));
  EXPECT_TRUE(answers(fourth));
  EXPECT_EQ(orb.getEvictor().size(), 3U);
  EXPECT_TRUE(
      log.has(1, "Evictor::activate", "More than 3 objects in use, dropped the one idle longest"))
      << log.text();
}

TEST_F(CrowdedEvictorTest, dropsOneOfThePeerThatHasMost)
{
  LogCapture log(1);
  auto const activateFor = [this](char const* address)
  {
    Peer peer;
    peer.address = address;
    PeerOfCall const call(&peer);
    advance(1);
    return activate(300);
  };
  auto const honest = activateFor("192.0.2.1");
  auto const first = activateFor("192.0.2.2");
  auto const second = activateFor("192.0.2.2");
  auto const third = activateFor("192.0.2.2");
  EXPECT_TRUE(answers(honest)) << "although it was idle longest";
  EXPECT_FALSE(answers(first));
  auto const fourth = activateFor("192.0.2.3");
  EXPECT_FALSE(answers(second));
  EXPECT_TRUE(answers(third));
  EXPECT_TRUE(log.has(1, "Evictor::activate",
                      "More than 3 objects in use, dropped the one idle longest of 192.0.2.2"))
      << log.text();
}

TEST_F(CrowdedEvictorTest, refusesMoreWhenNoneIsIdle)
{
  for (int i = 0; i < 3; ++i)
    activate(0);
  EXPECT_THROW(activate(300), CORBA::NO_RESOURCES);
  EXPECT_EQ(ProbeServant::alive, 3);
}
