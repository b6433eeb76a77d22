// Loading explorers and parsers, and what is started afterwards.

#include "discovery/DiscDB.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/plugin/EngineContext.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include <gtest/gtest.h>

#include <future>

using namespace tqtest;

namespace
{

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

// Notes the steps instead of setting timers.
class SteppingRepository : public DiscoveryRepository
{
public:
  explicit SteppingRepository(bool onMaster)
      : m_onMaster(onMaster), m_framework(new DiscoveryFramework("", DST_GENERIC, nullptr, false))
  {
    setDiscoveryFramework(m_framework.get());
  }

  bool isGenericDSOnMaster() const override { return m_onMaster; }
  void startExplorers(ExplorerSet explorers, EngineContext const&) override
  {
    std::string step = "start";
    for (auto const& entry : explorers)
      step += " " + entry->getSubject()->getName().str();
    steps.push_back(step);
  }
  void startPushTimer() override { noteTimer("push timer"); }
  void startRegisterTimer() override { noteTimer("register timer"); }

  Names steps;

private:
  void noteTimer(char const* timer)
  {
    steps.push_back(timer + (", " + std::to_string(getPullExplorers()->size())) +
                    " pull explorers");
  }

  bool m_onMaster;
  AutoDereference<DiscoveryFramework> m_framework;
};

class DiscoveryRepositoryLoadTest : public testing::Test
{
protected:
  DiscoveryRepositoryLoadTest()
  {
    setenv("TESSARINE_ROOT", m_root.path().c_str(), 1);
    fs::create_directories(m_root / "etc");
    fs::create_directories(m_root / "lib/plugins");
    writeText(m_root / "etc/tq.conf", "CLIENT_NAME = here\n");
  }

  void installPlugin(std::string const& fixture)
  {
    std::string const target = m_root / ("lib/plugins/libtqplugin-" + fixture + ".so");
    fs::copy_file(std::string(TQ_FIXTURE_DIR) + "/libdiscovery_" + fixture + ".so", target);
    fs::permissions(target, fs::perms(0755));
  }
  static int calls(char const* entry)
  {
    char const* const count = std::getenv((std::string("TQ_FIXTURE_") + entry).c_str());
    return count == nullptr ? 0 : std::atoi(count);
  }

  // One push and one pull explorer, and the registration of another host in
  // the database; the order of registering is not that of starting.
  static void prepare(DiscoveryRepository& repository)
  {
    getDiscoveryDBDatabase()->init("");
    AutoDereference<FakePull> const puller(new FakePull("puller"));
    AutoDereference<FakePush> const pusher(new FakePush("pusher"));
    repository.registerExplorer(new Subject("a-pull"), puller.get(), 1,
                                new Authority("a", AT_TQUCLIENT), true);
    repository.registerExplorer(new Subject("b-push"), pusher.get(), 1,
                                new Authority("a", AT_TQUCLIENT));
    AutoDereference<Discovery> const cached(getDiscoveryDBDatabase()->newDiscovery(DQ_UNDEFINED));
    cached->setSubject(new Subject("cached"));
    cached->setAuthority(new Authority("a", AT_REMOTEPULL));
    cached->setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                   OzfObjTime::now(), OzfObjTime(3600), 3));
    std::string const text =
        "<DiscoveredItems><SourceHost>far</SourceHost><ServiceName>s</ServiceName>"
        "<Priority>3</Priority><OriginType>2</OriginType></DiscoveredItems>";
    ASSERT_EQ(DS_SUCCESS, cached->open(OM_UPDATE, ""));
    ASSERT_TRUE(cached->getCollectionData()->writeCollection(text.size(), text.data()));
    ASSERT_EQ(DS_SUCCESS, cached->persist());
  }

  TempDir m_root;
  LogCapture m_log;
};

TEST_F(DiscoveryRepositoryLoadTest, OnTheMasterTheCacheComesAfterTheStartsAndBeforeThePushTimer)
{
  SteppingRepository repository(true);
  prepare(repository);
  repository.loadExplorers();
  EXPECT_EQ((Names{"start b-push", "start a-pull", "push timer, 2 pull explorers"}),
            repository.steps);
}

TEST_F(DiscoveryRepositoryLoadTest, ElsewhereThereIsNoCacheAndTheRegisterTimerIsSet)
{
  SteppingRepository repository(false);
  prepare(repository);
  repository.loadExplorers();
  EXPECT_EQ((Names{"start b-push", "start a-pull", "register timer, 1 pull explorers"}),
            repository.steps);
}

TEST_F(DiscoveryRepositoryLoadTest, ParsersAreLoadedAtTheFirstLookUpAndOnlyOnce)
{
  installPlugin("parsers");
  DiscoveryRepository& repository = getDiscoveryRepository();
  EXPECT_EQ(0, calls("parsers"));
  EXPECT_TRUE(repository.getRegisteredExplorerParser("FixtureParser") != nullptr) << m_log.text();
  EXPECT_EQ(1, calls("parsers"));
  repository.loadExplorerParsers();
  // Another loader would load them again if it were asked.
  EngineContext::closeProcessEngine();
  repository.loadExplorerParsers();
  EXPECT_TRUE(repository.getRegisteredExplorerParser("FixtureParser") != nullptr);
  EXPECT_EQ(1, calls("parsers"));
}

TEST_F(DiscoveryRepositoryLoadTest, OnlyThePluginsOfTheLimitAreAskedForParsers)
{
  installPlugin("parsers");
  installPlugin("multi");
  std::list<std::string> const limit{"tqplugin-multi"};
  DiscoveryRepository& repository = getDiscoveryRepository();
  repository.limitExplorerPlugins(&limit);
  repository.loadExplorerParsers();
  EXPECT_EQ(1, calls("multi_parsers")) << m_log.text();
  EXPECT_EQ(0, calls("parsers"));
}

TEST_F(DiscoveryRepositoryLoadTest, AskingForAParserWhileAPluginRegistersDoesNotDeadlock)
{
  installPlugin("gate");
  setenv("TQ_FIXTURE_FOLDER", m_root.path().c_str(), 1);
  AutoDereference<DiscoveryFramework> const framework(
      new DiscoveryFramework("", DST_NONE, nullptr, false));
  getDiscoveryRepository().setDiscoveryFramework(framework.get());

  // Threads that block for good must not keep the test from failing.
  std::promise<void> loaded;
  std::promise<void> asked;
  auto const hasLoaded = loaded.get_future();
  auto const hasAsked = asked.get_future();
  std::thread(
      [&]
      {
        getDiscoveryRepository().loadExplorers();
        loaded.set_value();
      })
      .detach();
  ASSERT_TRUE(eventually([this] { return fs::exists(m_root / "entered"); })) << m_log.text();
  std::thread(
      [&]
      {
        getDiscoveryRepository().getRegisteredExplorerParser("x");
        asked.set_value();
      })
      .detach();
  // Long enough for the second thread to take what it can.
  EXPECT_EQ(std::future_status::timeout, hasAsked.wait_for(std::chrono::milliseconds(300)));
  writeText(m_root / "go", "");
  bool const ended = hasLoaded.wait_for(std::chrono::seconds(60)) == std::future_status::ready &&
                     hasAsked.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  if (!ended)
  {
    std::fputs("The two threads wait for each other.\n", stderr);
    std::_Exit(1);
  }
  EXPECT_EQ(1u, getDiscoveryRepository().getPushExplorers()->size());
  getDiscoveryRepository().shutdown();
}

} // namespace
