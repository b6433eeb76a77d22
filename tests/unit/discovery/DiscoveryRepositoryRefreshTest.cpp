#include "discovery/DiscoveryRepositoryRefresh.h"

#include "ozf/log/Assertion.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RemoteService.h"
#include "tests/support/Service.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <omnithread.h>

using namespace tqtest;

namespace
{

constexpr char CLIENT_LIST[] = "Researcher::getDiscoveredClientList";
constexpr char REFRESH[] = "RefreshDiscoveryTask::ozfsvc";

using Clients = std::set<OzfString>;

// ---- the list of clients, from a master's own database ----

TEST(DiscoveryRepositoryRefreshTest, AClientKnownByVolumesAndFileSystemsIsListedOnce)
{
  Service host;
  host.start();
  ASSERT_EQ(DS_SUCCESS, Service::store("web1", "volume"));
  ASSERT_EQ(DS_SUCCESS, Service::store("web1", "filesystem"));
  ASSERT_EQ(DS_SUCCESS, Service::store("alpha", "filesystem"));
  ASSERT_EQ(DS_SUCCESS, Service::store("zulu", "volume", AT_EXTSRC));
  ASSERT_EQ(DS_SUCCESS, Service::store("other", "host"));
  LogCapture log;
  EXPECT_EQ((Clients{"alpha", "web1", "zulu"}), getDiscoveryRepository().getDiscoveredClientList());
  EXPECT_EQ(std::string::npos, log.text().find("clients found")) << log.text();
}

TEST(DiscoveryRepositoryRefreshTest, WithoutAnAnswerThereAreNoClientsAndTwoDetailLines)
{
  Service host("4a", "elsewhere");
  host.configure(""); // nobody can be asked
  LogCapture log;
  EXPECT_EQ(Clients{}, getDiscoveryRepository().getDiscoveredClientList());
  EXPECT_EQ(1, log.count(4, CLIENT_LIST, "No windows clients found")) << log.text();
  EXPECT_EQ(1, log.count(4, CLIENT_LIST, "No unix clients found")) << log.text();
}

TEST(DiscoveryRepositoryRefreshTest, AnExplorerThatFailsAnAssertionDoesNotEndTheList)
{
  struct Failing : FakePull
  {
    using FakePull::FakePull;
    bool collectionRequested(DiscoveryQuery, Authority const&, Subject const&,
                             AutoDereference<OZFRefCounted>&, char const*, CollectionData*) override
    {
      assertionFailed("false", "Failing::collectionRequested", "RefreshTest", __LINE__);
    }
  };
  Service host;
  AutoDereference<Failing> const failing(new Failing("failing"));
  getDiscoveryRepository().registerExplorer(new Subject("here"), failing.get(), 1,
                                            new Authority("volume", AT_TQUCLIENT), true);
  host.start();
  ASSERT_EQ(DS_SUCCESS, Service::store("alpha", "volume"));
  ASSERT_EQ(DS_SUCCESS, Service::store("zulu", "filesystem"));
  LogCapture log;
  EXPECT_EQ((Clients{"alpha", "zulu"}), getDiscoveryRepository().getDiscoveredClientList());
  EXPECT_NE(std::string::npos, log.text().find("1 " + std::string(CLIENT_LIST) +
                                               ": Passed over a record of authority volume: "))
      << log.text();
}

TEST(DiscoveryRepositoryRefreshTest, AClientWithBothKindsOfDiscoveriesIsRefreshedOnce)
{
  Service host;
  host.start();
  ASSERT_EQ(DS_SUCCESS, Service::store("here", "volume"));
  ASSERT_EQ(DS_SUCCESS, Service::store("here", "filesystem"));
  LogCapture log;
  EXPECT_TRUE(getDiscoveriesThreadMgr().restartAllPushTimers());
  getDiscoveriesThreadMgr().waitForRefresh();
  EXPECT_EQ(1, log.count(4, REFRESH, "Restarting push timers on client: here")) << log.text();
  std::string const text = log.text();
  auto const first = text.find("triggering push in ");
  EXPECT_NE(std::string::npos, first) << text;
  EXPECT_EQ(std::string::npos, text.find("triggering push in ", first + 1)) << text;
}

TEST(DiscoveryRepositoryRefreshTest, AClientThatCannotBeReachedDoesNotKeepTheNextFromIt)
{
  Service host;
  writeText(host.root() / "etc/tq.conf",
            readText(host.root() / "etc/tq.conf") + "HOST_ADDRESS.away = 127.0.0.2\n");
  reloadConfiguration();
  host.start();
  ASSERT_EQ(DS_SUCCESS, Service::store("away", "filesystem"));
  ASSERT_EQ(DS_SUCCESS, Service::store("here", "filesystem"));
  LogCapture log;
  EXPECT_TRUE(getDiscoveriesThreadMgr().restartAllPushTimers());
  getDiscoveriesThreadMgr().waitForRefresh();
  EXPECT_EQ(1, log.count(1, REFRESH, "Failed to connect to client discovery service"))
      << log.text();
  std::string const text = log.text();
  auto const away = text.find("Restarting push timers on client: away");
  auto const here = text.find("Restarting push timers on client: here");
  EXPECT_LT(away, here) << text;
  EXPECT_NE(std::string::npos, text.find("triggering push in ", here)) << text;
}

// ---- the task, with clients that are test servants ----

// Lets calls wait until the test opens it.
class Gate
{
public:
  void open()
  {
    std::lock_guard guard(m_mutex);
    m_open = true;
    m_changed.notify_all();
  }
  void pass()
  {
    std::unique_lock guard(m_mutex);
    m_changed.wait_for(guard, std::chrono::seconds(60), [this] { return m_open; });
  }

private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_open = false;
};

// The hosts alpha and beta, which the one test service plays.
class RefreshTaskTest : public RemoteServiceTest
{
protected:
  RefreshTaskTest()
      : RemoteServiceTest("HOST_ADDRESS.alpha = 127.0.0.1\nHOST_ADDRESS.beta = 127.0.0.1\n")
  {
  }

  void SetUp() override
  {
    RemoteServiceTest::SetUp();
    m_service->makeRecords = [this]
    {
      auto* const records = new RecordPages;
      records->pages = {{makeRecord("beta"), makeRecord("alpha")}};
      return activate<Remote::DiscoveryIterator>(records);
    };
    serveData({"<x/>"});
  }

  // One client is being asked, and stays so until the gate opens.
  void startAndHold()
  {
    m_service->beforeRestart = [this] { m_gate.pass(); };
    ASSERT_TRUE(getDiscoveriesThreadMgr().restartAllPushTimers());
    ASSERT_TRUE(eventually([this] { return m_service->restarts == 1; })) << m_log.text();
  }

  Gate m_gate;
};

TEST_F(RefreshTaskTest, AsksTheClientsInTheOrderOfTheirNames)
{
  ASSERT_TRUE(getDiscoveriesThreadMgr().restartAllPushTimers());
  getDiscoveriesThreadMgr().waitForRefresh();
  EXPECT_EQ(2, m_service->restarts);
  std::string const text = m_log.text();
  auto const alpha = text.find("Restarting push timers on client: alpha");
  auto const beta = text.find("Restarting push timers on client: beta");
  EXPECT_NE(std::string::npos, beta) << text;
  EXPECT_LT(alpha, beta) << text;
  ASSERT_EQ(2u, m_service->queries.size());
  EXPECT_EQ("volume", m_service->queries[0].authority);
  EXPECT_EQ("filesystem", m_service->queries[1].authority);
  for (auto const& query : m_service->queries)
  {
    EXPECT_EQ(DQ_FILTER_DATA, query.query);
    EXPECT_EQ(AT_ANYANDALL, query.type);
    EXPECT_EQ("*", query.subject);
  }
  EXPECT_EQ(4u, m_service->dataRequests.size()) << m_log.text();
  for (auto const& request : m_service->dataRequests)
    EXPECT_EQ("", request.second) << "all of a client's data, nothing filtered";
}

// Told by the task's own lines, which are written between its calls: during a
// call the ORB knows any thread.
TEST_F(RefreshTaskTest, ItsThreadIsKnownToTheOrb)
{
  std::atomic<int> known{0};
  std::atomic<int> unknown{0};
  LoggerFactory::setObserver(
      [&](LogLine const& line)
      {
        if (line.operation == REFRESH)
          ++(omni_thread::self() != nullptr ? known : unknown);
      });
  ASSERT_TRUE(getDiscoveriesThreadMgr().restartAllPushTimers());
  getDiscoveriesThreadMgr().waitForRefresh();
  LoggerFactory::setObserver({});
  EXPECT_EQ(2, m_service->restarts);
  EXPECT_EQ(2, known);
  EXPECT_EQ(0, unknown);
}

TEST_F(RefreshTaskTest, AnExceptionOfAClientEndsTheTask)
{
  m_service->beforeRestart = [] { throw CORBA::NO_RESOURCES(); };
  ASSERT_TRUE(getDiscoveriesThreadMgr().restartAllPushTimers());
  getDiscoveriesThreadMgr().waitForRefresh();
  EXPECT_EQ(1, m_service->restarts) << "the second client is not asked";
  EXPECT_EQ(1, m_log.count(1, REFRESH, "Caught CORBA exception connecting to remote service"))
      << m_log.text();
  EXPECT_NE(std::string::npos, m_log.text().find("1 " + std::string(REFRESH) + ": NO_RESOURCES"))
      << m_log.text();
}

TEST_F(RefreshTaskTest, TheShutdownStopsItBeforeTheNextClient)
{
  startAndHold();
  std::thread shutdown([] { getDiscoveryRepository().shutdown(); });
  EXPECT_TRUE(eventually([] { return getDiscoveryRepository().isShuttingDown(); }));
  m_gate.open();
  shutdown.join();
  EXPECT_EQ(1, m_service->restarts);
  EXPECT_EQ(1, m_log.count(1, REFRESH, "tqdisco shutting down, aborting refresh task"))
      << m_log.text();
  EXPECT_EQ(std::string::npos, m_log.text().find("on client: beta")) << m_log.text();
  EXPECT_FALSE(getDiscoveriesThreadMgr().restartAllPushTimers()) << "no start after the end";
  getDiscoveriesThreadMgr().waitForRefresh();
  EXPECT_EQ(1, m_service->restarts);
}

TEST_F(RefreshTaskTest, ASecondRefreshIsRefusedWhileOneRuns)
{
  startAndHold();
  EXPECT_FALSE(getDiscoveriesThreadMgr().restartAllPushTimers());
  m_gate.open();
  getDiscoveriesThreadMgr().waitForRefresh();
  EXPECT_EQ(2, m_service->restarts) << "each client once";
  EXPECT_EQ(2u, m_service->queries.size()) << "the clients were listed once";

  EXPECT_TRUE(getDiscoveriesThreadMgr().restartAllPushTimers());
  getDiscoveriesThreadMgr().waitForRefresh();
  EXPECT_EQ(4, m_service->restarts);
}

TEST_F(RefreshTaskTest, WaitingLastsUntilTheTaskHasEnded)
{
  startAndHold();
  auto const waiting =
      std::async(std::launch::async, [] { getDiscoveriesThreadMgr().waitForRefresh(); });
  EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(200)));
  m_gate.open();
  EXPECT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(60)));
  EXPECT_EQ(2, m_service->restarts);
}

} // namespace
