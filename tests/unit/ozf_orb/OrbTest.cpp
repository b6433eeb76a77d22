#include "ozf/orb/Orb.h"

#include "ozf/sync/AceReactor.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ProbeServant.h"

#include <ace/Reactor.h>
#include <dirent.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

OrbTest::Probe_var resolve(Orb& orb, char const* name)
{
  OzfHostname host;
  host.setHostname("127.0.0.1");
  CORBA::Object_var object = orb.resolveObject(host, "ProbeService", name, ACE_Time_Value::zero);
  return OrbTest::Probe::_unchecked_narrow(object);
}

std::string echo(OrbTest::Probe_ptr probe, char const* text)
{
  CORBA::String_var const answer = probe->echo(text);
  return answer.in();
}

CORBA::Object_ptr activate(Orb& orb, std::string const& prefix = "")
{
  auto* const servant = new ProbeServant;
  PortableServer::ServantBase_var const keeper = servant;
  servant->prefix = prefix;
  return orb.activateObject(servant);
}

long openDescriptors()
{
  long count = 0;
  DIR* const directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr)
    ++count;
  closedir(directory);
  return count;
}

class OrbObjectTest : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(orb.init());
    ASSERT_EQ(orb.run(0), 0);
  }
  void TearDown() override
  {
    orb.shutdown();
    EXPECT_EQ(ProbeServant::alive, 0);
  }

  unsigned short const port = freePort();
  ProductRoot root{"ORB_BIND = 127.0.0.1\nORB_PORT.ProbeService = " + std::to_string(port) + "\n"};
  Orb orb{1, "", "ProbeService", 1, 16};
};

} // namespace

TEST_F(OrbObjectTest, servesWhatIsAdvertised)
{
  CORBA::Object_var object = activate(orb);
  orb.advertiseObject("Probe One/%", object);
  EXPECT_EQ(echo(resolve(orb, "Probe One/%"), "hello"), "hello");
  EXPECT_EQ(orb.port(), port);
}

TEST_F(OrbObjectTest, destroyObjectRefTakesObjectAndNameAway)
{
  CORBA::Object_var object = activate(orb);
  orb.advertiseObject("Probe", object);
  OrbTest::Probe_var direct = OrbTest::Probe::_narrow(object);
  EXPECT_EQ(echo(direct, "x"), "x");
  orb.destroyObjectRef(object);
  EXPECT_THROW(echo(resolve(orb, "Probe"), "x"), CORBA::OBJECT_NOT_EXIST);
  EXPECT_THROW(echo(direct, "x"), CORBA::OBJECT_NOT_EXIST);
  EXPECT_TRUE(eventually([] { return ProbeServant::alive == 0; }));
  orb.destroyObjectRef(object);
}

TEST_F(OrbObjectTest, destroyObjectRefLeavesForeignReferencesAlone)
{
  orb.destroyObjectRef(CORBA::Object::_nil());
  orb.destroyObjectRef(resolve(orb, "Nobody"));
}

TEST_F(OrbObjectTest, theLastOneToAdvertiseANameHasIt)
{
  Orb other(1, "", "other", 1, 16);
  ASSERT_TRUE(other.init());
  other.run(0);
  CORBA::Object_var first = activate(orb, "first ");
  CORBA::Object_var second = activate(other, "second ");
  orb.advertiseObject("Probe", first);
  other.advertiseObject("Probe", second);
  EXPECT_EQ(echo(resolve(orb, "Probe"), "x"), "second x");
  orb.destroyObjectRef(first);
  EXPECT_EQ(echo(resolve(orb, "Probe"), "x"), "second x");
  other.shutdown();
  EXPECT_THROW(echo(resolve(orb, "Probe"), "x"), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(OrbObjectTest, aFailedCallIsInternalWithinTheProcessToo)
{
  CORBA::Object_var object = activate(orb);
  OrbTest::Probe_var probe = OrbTest::Probe::_narrow(object);
  EXPECT_THROW(probe->fail("assertion"), CORBA::INTERNAL);
  EXPECT_THROW(probe->fail("runtime"), CORBA::INTERNAL);
  LogCapture log(1);
  EXPECT_THROW(probe->fail("other"), CORBA::INTERNAL);
  EXPECT_TRUE(log.has(1, "CorbaProcess::guardCall",
                      "Caught exception in a call of fail: an exception of type int"))
      << log.text();
  EXPECT_EQ(echo(probe, "x"), "x");
}

TEST_F(OrbObjectTest, itsRootCanBeTakenDownWithoutHarmToOtherOrbs)
{
  Orb other(1, "", "other", 1, 16);
  ASSERT_TRUE(other.init());
  other.run(0);
  CORBA::Object_var mine = activate(orb);
  CORBA::Object_var others = activate(other);
  orb.advertiseObject("Probe", mine);

  CORBA::Object_var object = orb.resolveInitialReference("RootPOA");
  PortableServer::POA_var poa = PortableServer::POA::_narrow(object);
  ASSERT_FALSE(CORBA::is_nil(poa));
  orb.destroyObjectRef(mine);
  orb.getEvictor().shutdown();
  PortableServer::POAManager_var(poa->the_POAManager())->deactivate(false, true);
  poa->destroy(false, true);

  OrbTest::Probe_var probe = OrbTest::Probe::_narrow(others);
  EXPECT_EQ(echo(probe, "x"), "x");
  orb.destroyObjectRef(mine);
  orb.shutdown();
  EXPECT_EQ(echo(probe, "x"), "x");
}

TEST_F(OrbObjectTest, refusesHostNamesThatCannotBeOne)
{
  for (char const* const name : {"a/b", "a b", "host,iiop:other", "h\xc3\xb6st", "a#b"})
  {
    OzfHostname host;
    host.setHostname(name);
    EXPECT_THROW(orb.resolveObject(host, "ProbeService", "Probe", ACE_Time_Value::zero),
                 CORBA::BAD_PARAM)
        << name;
  }
  OzfHostname host;
  host.setHostname(std::string(256, 'a'));
  EXPECT_THROW(orb.resolveObject(host, "ProbeService", "Probe", ACE_Time_Value::zero),
               CORBA::BAD_PARAM);
}

TEST_F(OrbObjectTest, resolvesNothingForAServiceWithoutAPort)
{
  OzfHostname host;
  host.setHostname("127.0.0.1");
  CORBA::Object_var object =
      orb.resolveObject(host, "NoSuchServiceAnywhere", "Probe", ACE_Time_Value::zero);
  EXPECT_TRUE(CORBA::is_nil(object));
}

TEST_F(OrbObjectTest, resolvesAnAddressOfVersion6)
{
  OzfHostname host;
  host.setHostname("::1");
  CORBA::Object_var object = orb.resolveObject(host, "ProbeService", "Probe", ACE_Time_Value(1));
  EXPECT_FALSE(CORBA::is_nil(object));
}

TEST_F(OrbObjectTest, shutdownWaitsForACallInProgress)
{
  Gate gate;
  auto* const servant = new ProbeServant;
  servant->gate = &gate;
  CORBA::Object_var object = orb.activateObject(servant);
  servant->_remove_ref();
  OrbTest::Probe_var probe = OrbTest::Probe::_narrow(object);
  std::atomic<bool> ended{false};
  std::thread caller(
      [&]
      {
        probe->waitForGate();
        ended = true;
      });
  ASSERT_TRUE(gate.awaitArrival());
  std::thread opener(
      [&]
      {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        gate.open();
      });
  orb.shutdown();
  EXPECT_EQ(ProbeServant::alive, 0);
  opener.join();
  caller.join();
  EXPECT_TRUE(ended);
}

TEST(OrbTest, twentyCyclesLeaveNothingBehind)
{
  auto const port = freePort();
  ProductRoot const root("ORB_BIND = 127.0.0.1\nORB_PORT.ProbeService = " + std::to_string(port) +
                         "\n");
  long descriptors = 0;
  for (int cycle = 0; cycle < 20; ++cycle)
  {
    Orb orb(1, "", "ProbeService", 1, 16);
    ASSERT_TRUE(orb.init()) << cycle;
    ASSERT_EQ(orb.run(0), 0);
    CORBA::Object_var object = activate(orb);
    orb.advertiseObject("Probe", object);
    EXPECT_EQ(echo(resolve(orb, "Probe"), "x"), "x");
    orb.shutdown();
    orb.shutdown();
    if (cycle == 1)
      descriptors = openDescriptors();
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(ProbeServant::alive, 0);
}

TEST(OrbTest, twoOrbsOfAProcessComeAndGoIndependently)
{
  ProductRoot const root("");
  auto first = std::make_unique<Orb>(1, "", "researcher_1", 1, 16);
  Orb second(1, "", "researcher_2", 1, 16);
  ASSERT_TRUE(first->init());
  ASSERT_TRUE(second.init());
  first->run(0);
  second.run(0);
  EXPECT_NE(first->getReactor(), second.getReactor());
  CORBA::Object_var object = activate(second);
  OrbTest::Probe_var probe = OrbTest::Probe::_narrow(object);
  first.reset();
  EXPECT_EQ(echo(probe, "x"), "x");
}

TEST(OrbTest, isOfNoUseBeforeInitAndAfterShutdown)
{
  ProductRoot const root("");
  Orb orb(1, "", "idle", 1, 16);
  EXPECT_EQ(orb.run(0), -1);
  EXPECT_EQ(orb.getReactor(), nullptr);
  EXPECT_THROW(activate(orb), CORBA::BAD_INV_ORDER);
  ASSERT_TRUE(orb.init());
  EXPECT_TRUE(orb.isEvictorEnabled());
  orb.shutdown();
  EXPECT_THROW(orb.getEvictor(), CORBA::BAD_INV_ORDER);
  EXPECT_EQ(ProbeServant::alive, 0);
}

TEST(OrbTest, anOrbWithoutEvictorHasNone)
{
  ProductRoot const root("");
  Orb orb(1, "", "plain", 0, 0);
  ASSERT_TRUE(orb.init());
  EXPECT_FALSE(orb.isEvictorEnabled());
  EXPECT_THROW(orb.getEvictor(), CORBA::BAD_INV_ORDER);
}

TEST(OrbTest, runWithWaitReturnsAtShutdown)
{
  ProductRoot const root("");
  Orb orb(1, "", "waiting", 1, 16);
  ASSERT_TRUE(orb.init());
  std::atomic<bool> returned{false};
  std::thread runner(
      [&]
      {
        EXPECT_EQ(orb.run(1), 0);
        returned = true;
      });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(returned);
  orb.shutdown();
  runner.join();
}

TEST(OrbTest, shutdownWithdrawsItsReactorFromTheFramework)
{
  ProductRoot const root("");
  Orb orb(1, "", "reacting", 1, 16);
  ASSERT_TRUE(orb.init());
  setAceReactor(orb.getReactor());
  orb.shutdown();
  EXPECT_EQ(getAceReactor(), nullptr);
}
