#include "discovery/DiscoveryRepository.h"

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/DiscDB.h"
#include "discovery/DiscDBDiscovery.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/RemoteDB.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/discovery/RepositoryTesting.h"

#include <gtest/gtest.h>

#include <future>

using namespace tqtest;

namespace
{

struct DiscoveryRepositoryTest : RepositoryTesting
{
};

using Names = std::vector<std::string>;

TEST_F(DiscoveryRepositoryTest, RegistrationTakesTheSubjectAndTheAuthorityOver)
{
  AutoDereference<FakePush> explorer(new FakePush("x"));
  {
    TestRepository repository;
    push(repository, explorer.get(), 5, "s", "a");
    EXPECT_EQ(2, explorer->referenceCount());
  }
  EXPECT_EQ(1, explorer->referenceCount());
}

TEST_F(DiscoveryRepositoryTest, ANullAuthorityMeansTheLocalHost)
{
  OzfHostname::overrideLocal("here");
  TestRepository repository;
  AutoDereference<FakePush> explorer(new FakePush("x"));
  repository.registerExplorer(new Subject("s"), explorer.get(), 1, nullptr);
  auto const entries = repository.getPushExplorers();
  ASSERT_EQ(1u, entries->size());
  EXPECT_EQ("here", (*entries->begin())->getAuthority()->getName().str());
  EXPECT_EQ(AT_EXTSRC, (*entries->begin())->getAuthority()->getType());
}

TEST_F(DiscoveryRepositoryTest, RegistrationWithoutSubjectOrExplorerFailsTheAssertion)
{
  TestRepository repository;
  LogCapture log;
  AutoDereference<FakePush> explorer(new FakePush("x"));
  EXPECT_THROW(repository.registerExplorer(nullptr, explorer.get(), 1, nullptr), AssertionFailure);
  EXPECT_NE(std::string::npos, log.text().find("NULL != subject")) << log.text();
  Subject* const subject = new Subject("s");
  EXPECT_THROW(
      repository.registerExplorer(subject, static_cast<ExplorerPush*>(nullptr), 1, nullptr),
      AssertionFailure);
  EXPECT_NE(std::string::npos, log.text().find("NULL != explorer")) << log.text();
  delete subject;
}

TEST_F(DiscoveryRepositoryTest, APullRegistrationWithoutSubjectOrExplorerFailsTheAssertion)
{
  constexpr char OPERATION[] = "DiscoveryRepository::registerExplorer";
  TestRepository repository;
  LogCapture log;
  AutoDereference<FakePull> explorer(new FakePull("x"));
  EXPECT_THROW(repository.registerExplorer(nullptr, explorer.get(), 1, nullptr, true),
               AssertionFailure);
  EXPECT_EQ(1, log.count(1, OPERATION, "Assertion failed: NULL != subject")) << log.text();
  std::unique_ptr<Subject const> const subject(new Subject("s")); // not taken over
  EXPECT_THROW(repository.registerExplorer(subject.get(), static_cast<ExplorerPull*>(nullptr), 1,
                                           nullptr, true),
               AssertionFailure);
  EXPECT_EQ(1, log.count(1, OPERATION, "Assertion failed: NULL != explorer")) << log.text();
  EXPECT_TRUE(repository.getPullExplorers()->empty());
}

TEST_F(DiscoveryRepositoryTest, RegistrationWithoutAnAuthorityToBeHadFailsTheAssertion)
{
  struct Nameless : TestRepository
  {
    Authority* getLocalAuthority() const override { return nullptr; }
  };
  Nameless repository;
  LogCapture log;
  std::unique_ptr<Subject const> const subject(new Subject("s")); // not taken over
  AutoDereference<FakePush> pusher(new FakePush("pusher"));
  AutoDereference<FakePull> puller(new FakePull("puller"));
  EXPECT_THROW(repository.registerExplorer(subject.get(), pusher.get(), 1, nullptr),
               AssertionFailure);
  EXPECT_THROW(repository.registerExplorer(subject.get(), puller.get(), 1, nullptr, false),
               AssertionFailure);
  EXPECT_EQ(2, log.count(1, "DiscoveryRepository::registerExplorer",
                         "Assertion failed: NULL != authority"))
      << log.text();
}

TEST_F(DiscoveryRepositoryTest, ThePluginLimitIsReplacedAndLifted)
{
  TestRepository repository;
  std::list<std::string> const two{"b", "a"};
  repository.limitExplorerPlugins(&two);
  EXPECT_EQ(two, repository.getExplorerPluginLimit());
  std::list<std::string> const one{"c"};
  repository.limitExplorerPlugins(&one);
  EXPECT_EQ(one, repository.getExplorerPluginLimit());
  repository.limitExplorerPlugins(nullptr);
  EXPECT_TRUE(repository.getExplorerPluginLimit().empty());
}

TEST_F(DiscoveryRepositoryTest, TheFirstParserOfANameStays)
{
  DiscoveryRepository& repository = getDiscoveryRepository();
  AutoDereference<DefaultExplorerDataParser> first(new DefaultExplorerDataParser);
  AutoDereference<DefaultExplorerDataParser> second(new DefaultExplorerDataParser);
  repository.registerExplorerParser("p", first.get());
  repository.registerExplorerParser("p", second.get());
  EXPECT_EQ(first.get(), repository.getRegisteredExplorerParser("p").get());
  EXPECT_EQ(1, second->referenceCount());
  EXPECT_TRUE(repository.getRegisteredExplorerParser("q") == nullptr);
}

TEST_F(DiscoveryRepositoryTest, TheWildcardIsTheAsterisk)
{
  EXPECT_TRUE(DiscoveryRepository::stringContainsWildcard("a*b"));
  EXPECT_FALSE(DiscoveryRepository::stringContainsWildcard("a?b%"));
  EXPECT_FALSE(DiscoveryRepository::stringContainsWildcard(""));
}

TEST_F(DiscoveryRepositoryTest, AccessorsAssertThatThereIsAFramework)
{
  TestRepository repository;
  LogCapture log;
  EXPECT_THROW(repository.getOrb(), AssertionFailure);
  EXPECT_THROW(repository.getOrbServiceName(), AssertionFailure);
  EXPECT_THROW(repository.getDSType(), AssertionFailure);
  EXPECT_THROW(repository.getDSName(), AssertionFailure);
  for (char const* const operation : {"getOrb", "getOrbServiceName", "getDSType", "getDSName"})
    EXPECT_TRUE(log.has(1, std::string("DiscoveryRepository::") + operation,
                        "Assertion failed: 0 != m_discoveryFramework"))
        << log.text();
}

TEST_F(DiscoveryRepositoryTest, ItsEndDoesNotWaitForWhatIsStillAlive)
{
  auto repository = std::make_unique<TestRepository>();
  AutoDereference<FakePush> held(new FakePush("held"));
  OZFBlockUntil* const barrier = &repository->getBarrier();
  barrier->add(*held);
  auto const ending = std::async(std::launch::async, [&] { repository.reset(); });
  bool const ended = ending.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  EXPECT_TRUE(ended);
  held.reset();
  if (ended)
    delete barrier; // nobody's any more
}

TEST_F(DiscoveryRepositoryTest, TheFrameworkTellsTypeAndName)
{
  TestRepository repository;
  AutoDereference<DiscoveryFramework> framework(
      new DiscoveryFramework("sub", DST_GENERIC, nullptr, false));
  repository.setDiscoveryFramework(framework.get());
  EXPECT_EQ(1u, repository.getDSType());
  EXPECT_TRUE(repository.isGenericDS());
  EXPECT_EQ("sub", repository.getDSName());
  EXPECT_EQ(2, framework->referenceCount());
  repository.setDiscoveryFramework(nullptr);
  EXPECT_EQ(1, framework->referenceCount());
}

TEST_F(DiscoveryRepositoryTest, OnTheMasterNewDiscoveriesAreLocal)
{
  getDiscoveryDBDatabase()->init("");
  TestRepository repository(true);
  CollectionAttributes attributes(CT_REAL_TIME, CS_LOCALONLY, OzfObjTime(5), OzfObjTime(60), 9);
  attributes.setSignature("sig");
  AutoDereference<Discovery> discovery;
  repository.newDiscovery(discovery, DQ_FILTER_DATA, Subject("s"), Authority("a", AT_EXTSRC),
                          attributes);
  ASSERT_NE(nullptr, dynamic_cast<DBDiscovery*>(discovery.get()));
  EXPECT_EQ(DQ_FILTER_DATA, discovery->getQuery());
  EXPECT_EQ("s", discovery->getSubject()->getName().str());
  EXPECT_EQ("a", discovery->getAuthority()->getName().str());
  EXPECT_EQ(AT_EXTSRC, discovery->getAuthority()->getType());
  CollectionAttributes const& copy = *discovery->getAttributes();
  EXPECT_EQ(CT_REAL_TIME, copy.getType());
  EXPECT_EQ(CS_LOCALONLY, copy.getStorage());
  EXPECT_EQ(OzfObjTime(5), copy.getDiscoveryTime());
  EXPECT_EQ(OzfObjTime(60), copy.getValidityInterval());
  EXPECT_EQ(attributes.getExpiresTime(), copy.getExpiresTime());
  EXPECT_EQ("sig", copy.getSignature().str());
  EXPECT_EQ(9u, copy.getPriority());
}

TEST_F(DiscoveryRepositoryTest, ElsewhereNewDiscoveriesAreRemote)
{
  TestRepository repository(false);
  AutoDereference<Discovery> discovery;
  repository.newDiscovery(
      discovery, DQ_DISCOVERY_DATA, Subject("s"), Authority("a", AT_EXTSRC),
      CollectionAttributes(CT_REAL_TIME, CS_LOCALONLY, OzfObjTime(), OzfObjTime(60), 9));
  EXPECT_NE(nullptr, dynamic_cast<RemoteDiscovery*>(discovery.get()));
}

TEST_F(DiscoveryRepositoryTest, WhatWasHeldIsReleasedBeforeADiscoveryIsMade)
{
  struct Held : Discovery
  {
    explicit Held(bool& alive) : Discovery(nullptr, DQ_UNDEFINED), m_alive(alive) {}
    ~Held() override { m_alive = false; }
    DiscoveryStatus persist() override { return DS_SUCCESS; }
    DiscoveryStatus open(OpenMode, char const*) override { return DS_SUCCESS; }
    bool& m_alive;
  };
  TestRepository repository(true); // whose database cannot make any yet
  bool alive = true;
  AutoDereference<Discovery> discovery(new Held(alive));
  CollectionAttributes const attributes(CT_REAL_TIME, CS_LOCALONLY, OzfObjTime(), OzfObjTime(), 1);
  EXPECT_THROW(repository.newDiscovery(discovery, DQ_DISCOVERY_DATA, Subject("s"),
                                       Authority("a", AT_EXTSRC), attributes),
               AssertionFailure);
  EXPECT_FALSE(alive);
  EXPECT_FALSE(discovery);
}

TEST_F(DiscoveryRepositoryTest, ARemoteRegistrationOnTheMasterIsCached)
{
  getDiscoveryDBDatabase()->init("");
  TestRepository repository(true);
  AutoDereference<RemoteExplorerPull> remote(
      new RemoteExplorerPull("DiscoveryService", "far<away", "s", "a", AT_TQUCLIENT));
  pull(repository, remote.get(), 7, "s", "a", AT_TQUCLIENT, false);
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveredItems>"
            "<SourceHost>far&lt;away</SourceHost><ServiceName>DiscoveryService</ServiceName>"
            "<Priority>7</Priority><OriginType>2</OriginType></DiscoveredItems>\n",
            readText(root / "db/discovery/4 a s.dat"));
  std::string const metadata = readText(root / "db/discovery/4 a s.xml");
  EXPECT_NE(std::string::npos, metadata.find("<Priority>7</Priority>"));
  EXPECT_NE(std::string::npos,
            metadata.find("<DiscoveryAttributes Type=\"" + std::to_string(CT_POINT_IN_TIME) +
                          "\" Storage=\"" + std::to_string(CS_CENTRALREPOSITORY) + "\">"))
      << metadata;
}

TEST_F(DiscoveryRepositoryTest, AnExplorerOfThisHostOrFromTheCacheIsNotCached)
{
  getDiscoveryDBDatabase()->init("");
  TestRepository repository(true);
  AutoDereference<FakePull> local(new FakePull("local"));
  pull(repository, local.get(), 7, "s", "a", AT_TQUCLIENT, false);
  AutoDereference<RemoteExplorerPull> remote(
      new RemoteExplorerPull("DiscoveryService", "far", "t", "a", AT_TQUCLIENT));
  pull(repository, remote.get(), 7, "t", "a", AT_TQUCLIENT, true);
  EXPECT_EQ(2u, repository.getPullExplorers()->size());
  EXPECT_FALSE(std::filesystem::exists(root / "db/discovery/4 a s.dat"));
  EXPECT_FALSE(std::filesystem::exists(root / "db/discovery/4 a t.dat"));
}

TEST_F(DiscoveryRepositoryTest, PersistToDiskAssertsTheMastersRole)
{
  TestRepository repository(false);
  AutoDereference<FakePull> local(new FakePull("local"));
  AutoDereference<ExplorerWrapper> entry(
      new ExplorerWrapper(local.get(), 1, new Subject("s"), new Authority("a", AT_TQUCLIENT)));
  LogCapture log;
  EXPECT_THROW(repository.persistToDisk(entry), AssertionFailure);
  EXPECT_TRUE(
      log.has(1, "DiscoveryRepository::persistToDisk", "Assertion failed: isGenericDSOnMaster()"))
      << log.text();
}

TEST_F(DiscoveryRepositoryTest, ACacheRecordThatCannotBeWrittenIsLogged)
{
  getDiscoveryDBDatabase()->init("");
  TestRepository repository(true);
  std::filesystem::remove_all(root / "db/discovery");
  AutoDereference<RemoteExplorerPull> remote(
      new RemoteExplorerPull("DiscoveryService", "far", "s", "a", AT_TQUCLIENT));
  LogCapture log;
  pull(repository, remote.get(), 7, "s", "a", AT_TQUCLIENT, false);
  EXPECT_TRUE(log.has(1, "DiscoveryRepository::persistToDisk", "Failed to open collection"))
      << log.text();
  EXPECT_EQ(1u, repository.getPullExplorers()->size()) << "the registration itself stands";
}

TEST_F(DiscoveryRepositoryTest, ACacheRecordWhoseMetadataCannotBeReplacedIsLogged)
{
  getDiscoveryDBDatabase()->init("");
  TestRepository repository(true);
  AutoDereference<RemoteExplorerPull> remote(
      new RemoteExplorerPull("DiscoveryService", "far", "s", "a", AT_TQUCLIENT));
  pull(repository, remote.get(), 7, "s", "a", AT_TQUCLIENT, false);
  // The metadata cannot be replaced at persist: a directory is in its place.
  std::filesystem::remove(root / "db/discovery/4 a s.xml");
  std::filesystem::create_directory(root / "db/discovery/4 a s.xml");
  LogCapture log;
  pull(repository, remote.get(), 7, "s", "a", AT_TQUCLIENT, false);
  EXPECT_TRUE(
      log.has(1, "DiscoveryRepository::persistToDisk", "Failed to persist discovery record."))
      << log.text();
}

TEST_F(DiscoveryRepositoryTest, ExplorersAreStartedAndStoppedInSetOrderAndMayThrow)
{
  struct Thrower : FakePush
  {
    using FakePush::FakePush;
    void startExploration(EngineContext const&, Authority const&, Subject const&,
                          AutoDereference<OZFRefCounted>&, DiscoveryFactory*) override
    {
      throw std::runtime_error("broken");
    }
  };
  TestRepository repository;
  CallList calls;
  AutoDereference<FakePush> a(new FakePush("a", &calls));
  AutoDereference<Thrower> b(new Thrower("b", &calls));
  AutoDereference<FakePush> c(new FakePush("c", &calls));
  push(repository, c.get(), 1, "3", "x");
  push(repository, a.get(), 1, "1", "x");
  push(repository, b.get(), 1, "2", "x");
  LogCapture log;
  repository.startExplorers(*repository.getPushExplorers(), EngineContext());
  repository.stopExplorers(*repository.getPushExplorers());
  EXPECT_EQ((Names{"start a", "start c", "stop a", "stop b", "stop c"}), calls.names());
  EXPECT_TRUE(
      log.has(1, "DiscoveryRepository::startExplorers", "Explorer b threw an exception: broken"))
      << log.text();
}

TEST_F(DiscoveryRepositoryTest, ShutdownStopsPushThenPullAndEmptiesTheSets)
{
  TestRepository repository;
  CallList calls;
  AutoDereference<FakePull> puller(new FakePull("puller", &calls));
  AutoDereference<FakePush> pusher(new FakePush("pusher", &calls));
  pull(repository, puller.get(), 1, "1", "x");
  push(repository, pusher.get(), 1, "2", "x");
  LogCapture log;
  repository.shutdown();
  EXPECT_EQ((Names{"stop pusher", "stop puller"}), calls.names());
  EXPECT_TRUE(repository.getPushExplorers()->empty());
  EXPECT_TRUE(repository.getPullExplorers()->empty());
  EXPECT_TRUE(
      log.has(4, "DiscoveryRepository::shutdown", "Waiting if any explorer timer is running"));
  EXPECT_TRUE(
      log.has(4, "DiscoveryRepository::shutdown", "Informing explorers to stop exploration"));
  EXPECT_EQ(1, puller->referenceCount());
  EXPECT_EQ(1, pusher->referenceCount());
  repository.fini();
}

TEST_F(DiscoveryRepositoryTest, ShutdownTwiceOrFiniFirstFailTheAssertion)
{
  TestRepository repository;
  LogCapture log;
  EXPECT_THROW(repository.fini(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryRepository::fini", "Assertion failed: m_shuttingDown"));
  repository.shutdown();
  EXPECT_THROW(repository.shutdown(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryRepository::shutdown", "Assertion failed: !m_shuttingDown"));
}

TEST_F(DiscoveryRepositoryTest, OnlyANewFrameworkMakesItUsableAgainAfterAShutdown)
{
  TestRepository repository;
  auto const framework = []
  {
    return AutoDereference<DiscoveryFramework>(
        new DiscoveryFramework("", DST_NONE, nullptr, false));
  };
  auto const first = framework();
  repository.setDiscoveryFramework(first.get());
  EXPECT_FALSE(repository.isShuttingDown());
  repository.shutdown();
  repository.setDiscoveryFramework(first.get());
  EXPECT_TRUE(repository.isShuttingDown()) << "by the framework that it had";
  repository.setDiscoveryFramework(nullptr);
  EXPECT_TRUE(repository.isShuttingDown()) << "by none";
  auto const second = framework();
  repository.setDiscoveryFramework(second.get());
  EXPECT_FALSE(repository.isShuttingDown());
  repository.shutdown();
  EXPECT_TRUE(repository.isShuttingDown());
  repository.setDiscoveryFramework(nullptr);
}

TEST_F(DiscoveryRepositoryTest, AMissingMasterNameIsLoggedOnceACallUnderItsOldTag)
{
  writeText(root / "etc/tq.conf", "CLIENT_NAME = here\n");
  TestRepository repository;
  LogCapture log;
  for (long call = 1; call <= 2; ++call)
  {
    OzfHostname master;
    repository.getMasterServerName(master);
    EXPECT_TRUE(master.empty());
    EXPECT_EQ(call, log.count(1, "RemoteCollectionData::getMasterServerName",
                              "Unable to obtain master server name"));
  }
}

TEST_F(DiscoveryRepositoryTest, TheMasterNameComesFromTheConfiguration)
{
  TestRepository repository;
  OzfHostname master;
  repository.getMasterServerName(master);
  EXPECT_EQ("master", master.exportNarrow());
}

} // namespace
