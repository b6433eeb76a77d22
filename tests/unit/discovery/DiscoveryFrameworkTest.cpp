#include "discovery/DiscoveryFramework.h"

#include "discovery/DiscDB.h"
#include "discovery/DiscDBLock.h"
#include "discovery/DiscoveryService_iIterators.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include "ozf/config/HostRole.h"
#include "ozf/log/Assertion.h"

#include <ace/Init_ACE.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

// The manager of the POAs that the framework serves by.
PortableServer::POAManager_var managerOf(Orb& orb)
{
  CORBA::Object_var const root = orb.resolveInitialReference("RootPOA");
  PortableServer::POA_var const poa = PortableServer::POA::_narrow(root);
  return poa->the_POAManager();
}

// How many more times ACE was counted up than down. Takes it down: for a
// process that ends with this.
int countOfAce()
{
  int count = 0;
  while (ACE::fini() != -1)
    ++count;
  return count;
}

TEST(DiscoveryFrameworkTest, AProcessThatOnlyReadsServesNothingAndKeepsTheRepositoryOpen)
{
  Service host; // for its configuration; its own ORB is never brought up
  AutoDereference<DiscoveryFramework> framework(
      new DiscoveryFramework("discovery", DST_NONE, nullptr, false));
  std::list<std::string> const limit{"one"};
  framework->init(&limit);
  EXPECT_EQ("discovery", getDiscoveryRepository().getDSName());
  EXPECT_EQ(limit, getDiscoveryRepository().getExplorerPluginLimit());
  EXPECT_FALSE(std::filesystem::exists(host.database())) << "no database is set up";

  // fini would wait for this object if it ended the repository.
  AutoDereference<FakePush> held(new FakePush("held"));
  getDiscoveryRepository().getBarrier().add(*held);
  framework->shutdown();
  framework->fini();
}

TEST(DiscoveryFrameworkTest, AProcessThatOnlyReadsDoesNotEndTheWaitForLocks)
{
  Service host;
  AutoDereference<DiscoveryFramework> framework(
      new DiscoveryFramework("discovery", DST_NONE, nullptr, false));
  framework->init(nullptr);
  framework->shutdown();
  EXPECT_TRUE(LockWait().pause());
  framework->fini();
}

TEST(DiscoveryFrameworkTest, LocksAreWaitedForAgainWhenAServiceHasEnded)
{
  Service host;
  host.start();
  host.leaveFrameworkToTest();
  host.framework().shutdown();
  EXPECT_FALSE(LockWait().pause());
  host.framework().fini();
  EXPECT_TRUE(LockWait().pause());
}

TEST(DiscoveryFrameworkTest, ShutdownTwiceFailsTheAssertion)
{
  Service host;
  AutoDereference<DiscoveryFramework> framework(
      new DiscoveryFramework("", DST_NONE, nullptr, false));
  framework->init(nullptr);
  LogCapture log;
  framework->shutdown();
  EXPECT_THROW(framework->shutdown(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryFramework::shutdown", "Assertion failed: !m_shutdown"))
      << log.text();
}

TEST(DiscoveryFrameworkTest, FiniBeforeShutdownOrOnceTooOftenFailsTheAssertion)
{
  Service host;
  AutoDereference<DiscoveryFramework> framework(
      new DiscoveryFramework("", DST_NONE, nullptr, false));
  framework->init(nullptr);
  LogCapture log;
  EXPECT_THROW(framework->fini(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryFramework::fini", "Assertion failed: m_shutdown"));
  framework->shutdown();
  framework->fini();
  EXPECT_THROW(framework->fini(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryFramework::fini", "Assertion failed: m_init")) << log.text();
}

TEST(DiscoveryFrameworkTest, AServiceNeedsAnOrbWithAnEvictor)
{
  Service host;
  Orb withoutEvictor(0, "", "plain", 0, 0);
  AutoDereference<DiscoveryFramework> framework(
      new DiscoveryFramework("", DST_GENERIC, &withoutEvictor, false));
  LogCapture log;
  EXPECT_THROW(framework->init(nullptr), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryFramework::init", "Assertion failed: m_orb->isEvictorEnabled()"))
      << log.text();
}

TEST(DiscoveryFrameworkTest, AskingForAnOrbThatIsNotThereFailsTheAssertion)
{
  AutoDereference<DiscoveryFramework> framework(
      new DiscoveryFramework("", DST_NONE, nullptr, false));
  LogCapture log;
  EXPECT_THROW(framework->getOrb(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryFramework::getOrb", "Assertion failed: 0 != m_orb"));
}

TEST(DiscoveryFrameworkTest, AServiceIsAdvertisedAndItsDatabaseIsReady)
{
  Service host;
  host.start();
  EXPECT_TRUE(std::filesystem::is_directory(host.database()));
  EXPECT_EQ(host.database(), getDiscoveryDBDatabase()->getDirectory());
  Remote::DiscoveryService_var const service = host.connect();
  ASSERT_FALSE(CORBA::is_nil(service));
  Remote::DiscoveryIterator_var const iterator =
      service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*");
  EXPECT_EQ(8, iterator->pageSize());

  host.stop();
  LogCapture log;
  EXPECT_TRUE(CORBA::is_nil(Remote::DiscoveryService_var(host.connect())));
}

TEST(DiscoveryFrameworkTest, TheServiceCanBeCalledBeforeItsExplorersStart)
{
  struct Starting : FakePush
  {
    using FakePush::FakePush;
    std::function<void()> onStart;
    void startExploration(EngineContext const&, Authority const&, Subject const&,
                          AutoDereference<OZFRefCounted>&, DiscoveryFactory*) override
    {
      onStart();
    }
  };
  Service host;
  AutoDereference<Starting> const explorer(new Starting("starting"));
  int started = 0;
  explorer->onStart = [&]
  {
    ++started;
    EXPECT_FALSE(CORBA::is_nil(Remote::DiscoveryService_var(host.connect())));
  };
  getDiscoveryRepository().registerExplorer(new Subject("s"), explorer.get(), 1,
                                            new Authority("a", AT_TQUCLIENT));
  host.start();
  EXPECT_EQ(1, started);
}

TEST(DiscoveryFrameworkTest, TwoInitsNeedTwoFinis)
{
  Service host;
  host.start(); // the first
  host.framework().init(nullptr);
  host.leaveFrameworkToTest();
  AutoDereference<FakePush> held(new FakePush("held"));
  getDiscoveryRepository().getBarrier().add(*held);
  host.framework().shutdown();
  host.framework().fini(); // returns although the barrier is closed
  std::atomic<bool> ended{false};
  std::thread last(
      [&]
      {
        host.framework().fini();
        ended = true;
      });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(ended) << "the last fini waits for the repository's barrier";
  held.reset();
  last.join();
  EXPECT_TRUE(ended);
}

TEST(DiscoveryFrameworkTest, AFailureToServeIsLoggedAndPassedOn)
{
  Service host;
  LogCapture log;
  // The ORB was never brought up.
  EXPECT_THROW(host.framework().init(nullptr), CORBA::Exception);
  EXPECT_NE(std::string::npos,
            log.text().find("1 DiscoveryFramework::init: Caught corba exception activating "
                            "DiscoveryService servant, Corba exception: "))
      << log.text();
}

TEST(DiscoveryFrameworkTest, AFailureOfAnyKindToServeIsUndone)
{
  Service host;
  ASSERT_TRUE(host.orb().init());
  ASSERT_EQ(0, host.orb().run(0));
  getDiscoveryDBDatabase()->init("taken"); // may be set up once only
  LogCapture log;
  EXPECT_THROW(host.framework().init(nullptr), AssertionFailure);
  EXPECT_NE(std::string::npos,
            log.text().find("DiscoveryFramework::init: Unable to activate the DiscoveryService "
                            "servant: "))
      << log.text();
  EXPECT_THROW(host.framework().init(nullptr), AssertionFailure)
      << "what is left of the first attempt must not pass for a service";
}

TEST(DiscoveryFrameworkTest, LiveIteratorsAreDestroyedAtShutdown)
{
  Service host;
  host.start();
  Remote::DiscoveryService_var const service = host.connect();
  Remote::DiscoveryIterator_var const iterator =
      service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*");
  EXPECT_EQ(1u, host.orb().getEvictor().size());
  host.leaveFrameworkToTest();
  host.framework().shutdown();
  EXPECT_EQ(0u, host.orb().getEvictor().size());
  EXPECT_THROW(iterator->pageSize(), CORBA::SystemException);
  host.framework().fini();
}

// As the refresh may that the repository waits for: the ORB asks a servant of this process
// for its interfaces without holding it.
TEST(DiscoveryFrameworkTest, TheServiceCanBeLookedForWhileItIsShutDown)
{
  Service host;
  host.start();
  host.leaveFrameworkToTest();
  OzfHostname self;
  self.setHostname("here");
  std::atomic<int> found{0};
  std::atomic<bool> isDown{false};
  std::vector<std::thread> seekers;
  for (int i = 0; i < 4; ++i)
    seekers.emplace_back(
        [&]
        {
          while (!isDown)
          {
            try
            {
              CORBA::Object_var const object = host.orb().resolveObject(
                  self, "DiscoveryService", DISCOVERY_SERVICE, ACE_Time_Value::zero);
              Remote::DiscoveryService_var const service =
                  Remote::DiscoveryService::_narrow(object);
              found += CORBA::is_nil(service) ? 0 : 1;
            }
            catch (CORBA::SystemException const&)
            {
            }
          }
        });
  EXPECT_TRUE(eventually([&] { return found > 100; }));
  host.framework().shutdown();
  isDown = true;
  for (auto& seeker : seekers)
    seeker.join();
  host.framework().fini();
}

TEST(DiscoveryFrameworkTest, ShutdownGoesFromTheServantToTheExplorers)
{
  struct Ending : FakeIterator
  {
    Ending() : DiscoveryIterator(AT_ANYANDALL, "*", "*") {}
    std::function<void()> onEnd;
    ~Ending() override { onEnd(); }
  };
  struct Stopping : FakePush
  {
    using FakePush::FakePush;
    std::function<void()> onStop;
    void stopExploration(Authority const&, Subject const&, AutoDereference<OZFRefCounted>&) override
    {
      onStop();
    }
  };
  Service host;
  AutoDereference<Stopping> const explorer(new Stopping("last"));
  getDiscoveryRepository().registerExplorer(new Subject("s"), explorer.get(), 1,
                                            new Authority("a", AT_TQUCLIENT));
  host.start();
  host.leaveFrameworkToTest();
  Remote::DiscoveryService_var const service = host.connect();
  PortableServer::POAManager_var const manager = managerOf(host.orb());
  ASSERT_FALSE(service->_non_existent());

  int ended = 0;
  AutoDereference<Ending> local(new Ending);
  local->onEnd = [&]
  {
    ++ended;
    EXPECT_EQ(PortableServer::POAManager::ACTIVE, manager->get_state());
    EXPECT_TRUE(service->_non_existent()) << "nobody can get another iterator";
  };
  {
    auto* const servant = new Remote::DiscoveryIterator_i(local.get());
    PortableServer::ServantBase_var const owner(servant);
    CORBA::Object_var const reference = host.orb().activateEvictable(
        servant, Remote::DiscoveryIterator_i::REPOSITORY_ID, servant->objectId().out());
  }
  local.reset();
  int stopped = 0;
  explorer->onStop = [&]
  {
    ++stopped;
    EXPECT_EQ(1, ended);
    EXPECT_EQ(PortableServer::POAManager::INACTIVE, manager->get_state());
  };
  host.framework().shutdown();
  EXPECT_EQ(1, ended);
  EXPECT_EQ(1, stopped);
  host.framework().fini();
}

TEST(DiscoveryFrameworkTest, AStepThatTheOrbRefusesDoesNotKeepTheNextFromBeingTaken)
{
  Service host;
  host.start();
  host.leaveFrameworkToTest();
  CORBA::Object_var const root = host.orb().resolveInitialReference("RootPOA");
  PortableServer::POA_var(PortableServer::POA::_narrow(root))->destroy(false, true);
  LogCapture log;
  host.framework().shutdown();
  EXPECT_NE(std::string::npos,
            log.text().find("1 DiscoveryFramework::shutdown: Caught corba exception shutting down, "
                            "Corba exception: OBJECT_NOT_EXIST"))
      << log.text();
  EXPECT_TRUE(getDiscoveryRepository().isShuttingDown());
  host.framework().fini();
}

TEST(DiscoveryFrameworkDeathTest, AceIsCountedUpAndDownWhenTheCallerSaysSo)
{
  Service host;
  auto const afterInit = [](bool ownAce)
  {
    AutoDereference<DiscoveryFramework> const framework(
        new DiscoveryFramework("", DST_NONE, nullptr, ownAce));
    framework->init(nullptr);
    std::_Exit(countOfAce());
  };
  EXPECT_EXIT(afterInit(false), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(afterInit(true), testing::ExitedWithCode(1), "");

  auto const afterFini = [](bool ownAce)
  {
    ACE::init();
    AutoDereference<DiscoveryFramework> const framework(
        new DiscoveryFramework("", DST_NONE, nullptr, ownAce));
    framework->init(nullptr);
    framework->shutdown();
    framework->fini();
    std::_Exit(countOfAce());
  };
  EXPECT_EXIT(afterFini(false), testing::ExitedWithCode(1), "");
  EXPECT_EXIT(afterFini(true), testing::ExitedWithCode(1), "");
}

} // namespace
