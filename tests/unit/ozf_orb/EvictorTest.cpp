#include "ozf/orb/Evictor.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/Limits.h"
#include "ozf/orb/ConnectionTable.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ProbeServant.h"

#include <deque>
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
  Active activateFor(char const* address, int timeout = 300)
  {
    Peer peer;
    peer.address = address;
    PeerOfCall const call(&peer);
    advance(1);
    return activate(timeout);
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

constexpr long VERY_MANY = 40'000;

class LargeEvictorTest : public EvictorTest
{
protected:
  LargeEvictorTest() : EvictorTest(VERY_MANY) {}
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
  LogCapture log(1);
  for (int i = 0; i < 3; ++i)
    activate(0);
  auto const met = [] { return getLimits().iterators.met().value_or(MetLimit()); };
  auto const before = met().times;
  EXPECT_THROW(activateFor("192.0.2.9"), CORBA::NO_RESOURCES);
  EXPECT_EQ(ProbeServant::alive, 3);
  EXPECT_TRUE(
      log.has(1, "Evictor::activate", "Refused an object of 192.0.2.9: all of 3 are in calls"))
      << log.text();
  EXPECT_EQ(met().times, before + 1);
  EXPECT_EQ(met().lastPeer, "192.0.2.9");
}

TEST_F(CrowdedEvictorTest, ofPeersThatHaveAnIdleOneTheOneThatHasMostLosesIt)
{
  static constexpr ConfigurationKey SIX{
      .name = "SIX", .kind = KeyKind::NUMBER, .low = 0, .high = 6, .number = 6};
  Limit const limit(SIX);
  orb.getEvictor().setLimit(limit);
  auto const honest = activateFor("192.0.2.1");
  for (int i = 0; i < 3; ++i)
    activateFor("192.0.2.2", 0);
  auto const first = activateFor("192.0.2.3");
  auto const second = activateFor("192.0.2.3");
  auto const last = activateFor("192.0.2.4");
  EXPECT_TRUE(answers(honest)) << "although it was idle longest";
  EXPECT_FALSE(answers(first));
  EXPECT_TRUE(answers(second));
  EXPECT_TRUE(answers(last));
}

TEST_F(CrowdedEvictorTest, keepsToWhatItsLimitIsSetToMeanwhile)
{
  LogCapture log(1);
  orb.getEvictor().setLimit(getLimits().iterators);
  std::deque<Active> active;
  for (int i = 0; i < 5; ++i)
  {
    advance(1);
    active.push_back(activate(300));
  }
  EXPECT_EQ(orb.getEvictor().size(), 5U);
  overrideConfiguration("LIMIT_ITERATORS", "2");
  reloadConfiguration();
  advance(1);
  active.push_back(activate(300));
  EXPECT_EQ(orb.getEvictor().size(), 2U);
  EXPECT_TRUE(answers(active[4]));
  EXPECT_TRUE(answers(active[5]));
  EXPECT_TRUE(log.has(1, "Evictor::activate",
                      "More than 2 objects in use, dropped the one idle "
                      "longest"))
      << log.text();
}

// One that looks at all of them for each that comes is not done with this before the
// test's time is over.
TEST_F(LargeEvictorTest, makesRoomAmongVeryMany)
{
  LogCapture const quiet;
  auto const object = [this](int number)
  {
    Peer peer;
    peer.address = "2001:db8::" + std::to_string(number);
    PeerOfCall const call(&peer);
    auto* const servant = new ProbeServant;
    PortableServer::ServantBase_var const keeper = servant;
    CORBA::OctetSeq_var const id = orb.getEvictor().activate(servant);
    orb.getEvictor().addObject(ACE_Time_Value(300), orb.getEvictingPOA(), id.in(),
                               CORBA::OctetSeq());
  };
  for (int i = 0; i < 2 * VERY_MANY; ++i)
    object(i);
  EXPECT_EQ(orb.getEvictor().size(), static_cast<std::size_t>(VERY_MANY));
  EXPECT_EQ(ProbeServant::alive, VERY_MANY);
}
