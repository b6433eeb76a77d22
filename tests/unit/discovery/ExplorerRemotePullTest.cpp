#include "discovery/ExplorerRemotePull.h"

#include "discovery/PullPace.h"
#include "ozf/orb/ConnectionTable.h"
#include "tests/support/AuditCapture.h"
#include "tests/support/RemoteService.h"
#include "tests/support/Service.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <stdexcept>

using namespace tqtest;

namespace
{

constexpr char REQUESTED[] = "RemotePullExplorer::collectionRequested";

// Notes how it is opened and what is written to it.
class Target : public CollectionData
{
public:
  Before beforeOpen;
  Before beforeWrite;
  long writeResult = 1;
  bool mayOpen = true;
  int opensLeft = 1000;
  mutable std::vector<std::string> writes;
  std::vector<std::pair<OpenMode, std::string>> opens;

  int open(OpenMode mode, char const* name) override
  {
    runBefore(beforeOpen);
    opens.emplace_back(mode, name);
    return mayOpen && opensLeft-- > 0;
  }
  long readCollection(unsigned long, void*) const override { return 0; }
  long writeCollection(unsigned long len, void const* buf) const override
  {
    runBefore(beforeWrite);
    writes.emplace_back(static_cast<char const*>(buf), len);
    return writeResult;
  }
};

class ExplorerRemotePullTest : public RemoteServiceTest
{
protected:
  ExplorerRemotePullTest()
      : m_explorer(
            new RemoteExplorerPull("DiscoveryService", "localhost", "name 3", "name 4", AT_EXTSRC))
  {
  }

  bool request(char const* filter = "")
  {
    AutoDereference<OZFRefCounted> context;
    return m_explorer->collectionRequested(DQ_DISCOVERY_DATA, Authority("volume", AT_TQUCLIENT),
                                           Subject("hostA"), context, filter, &m_target);
  }

  bool hasText(std::string const& text) const
  {
    return m_log.text().find("1 " + std::string(REQUESTED) + ": " + text) != std::string::npos;
  }

  AutoDereference<RemoteExplorerPull> m_explorer;
  Target m_target;
};

} // namespace

TEST_F(ExplorerRemotePullTest, KeepsWhatItWasMadeFrom)
{
  EXPECT_STREQ(m_explorer->getExplorerName(), "RemotePullExplorer");
  EXPECT_EQ(m_explorer->getServiceName().str(), "DiscoveryService");
  EXPECT_EQ(m_explorer->getHost().exportNarrow(), "localhost");
  EXPECT_EQ(m_explorer->getRegistrationName1().str(), "name 3");
  EXPECT_EQ(m_explorer->getRegistrationName2().str(), "name 4");
  EXPECT_EQ(m_explorer->getAuthorityType(), AT_EXTSRC);
}

TEST_F(ExplorerRemotePullTest, CopiesThePayloadOfTheOneMatch)
{
  std::string const bytes(3000, 'x');
  serveRecords({{makeRecord("hostA", "volume")}});
  serveData({bytes});
  EXPECT_TRUE(request("<FilterParameters/>")) << m_log.text();
  ASSERT_EQ(m_target.writes.size(), 3U);
  EXPECT_EQ(m_target.writes[0].size(), 1024U);
  EXPECT_EQ(m_target.writes[1].size(), 1024U);
  EXPECT_EQ(m_target.writes[2].size(), 952U);

  ASSERT_EQ(m_service->queries.size(), 1U);
  auto const& query = m_service->queries.front();
  EXPECT_EQ(query.query, DQ_DISCOVERY_DATA);
  EXPECT_EQ(query.type, AT_EXTSRC) << "its own type, not the authority's";
  EXPECT_EQ(query.subject, "hostA");
  EXPECT_EQ(query.authority, "volume");
  EXPECT_NE(query.thread, std::this_thread::get_id()) << "not over a socket";
}

TEST_F(ExplorerRemotePullTest, OpensBothSidesTwiceAndTheFilterIsForTheFirst)
{
  serveRecords({{makeRecord()}});
  serveData({"data"});
  m_service->before = [this, calls = 0]() mutable
  {
    if (++calls == 3)
      serveData({"data again"});
  };
  EXPECT_TRUE(request("<FilterParameters/>")) << m_log.text();
  ASSERT_EQ(m_service->dataRequests.size(), 2U);
  EXPECT_EQ(m_service->dataRequests[0].second, "<FilterParameters/>");
  EXPECT_EQ(m_service->dataRequests[1].second, "");
  ASSERT_EQ(m_target.opens.size(), 2U);
  for (auto const& [mode, name] : m_target.opens)
  {
    EXPECT_EQ(mode, OM_UPDATE);
    EXPECT_EQ(name, "");
  }
  EXPECT_EQ(m_target.writes, std::vector<std::string>{"data again"});
}

TEST_F(ExplorerRemotePullTest, PayloadOfTheBuffersSizeTakesOneWrite)
{
  serveRecords({{makeRecord()}});
  serveData({std::string(1024, 'x')});
  EXPECT_TRUE(request()) << m_log.text();
  EXPECT_EQ(m_target.writes.size(), 1U);
}

TEST_F(ExplorerRemotePullTest, WritesThatFailDoNotEndTheCopy)
{
  serveRecords({{makeRecord()}});
  serveData({std::string(3000, 'x')});
  m_target.writeResult = 0;
  EXPECT_TRUE(request()) << m_log.text();
  EXPECT_EQ(m_target.writes.size(), 3U);
}

TEST_F(ExplorerRemotePullTest, IsTracedUnderItsName)
{
  serveRecords({});
  EXPECT_FALSE(request());
  std::string const text = m_log.text();
  std::string const line = "6 " + std::string(REQUESTED) + ": ";
  auto const entered = text.find(line + "Entered\n");
  auto const left = text.find(line + "Left\n");
  ASSERT_NE(entered, std::string::npos) << text;
  ASSERT_NE(left, std::string::npos) << text;
  EXPECT_LT(entered, text.find("No records found!")) << text;
  EXPECT_GT(left, text.find("No records found!")) << text;
}

TEST_F(ExplorerRemotePullTest, OtherExceptionsPassToTheCallerAndNothingIsHeldAfterThem)
{
  constexpr int MORE_THAN_MAY_BE_IN_PROGRESS = 25;
  auto* const records = serveRecords({{makeRecord()}});
  auto* const data = serveData({"data"});
  m_target.beforeWrite = [] { throw std::runtime_error("the target's own"); };
  for (int i = 1; i <= MORE_THAN_MAY_BE_IN_PROGRESS; ++i)
  {
    EXPECT_THROW(request(), std::runtime_error) << m_log.text();
    EXPECT_EQ(records->releases, i);
    EXPECT_EQ(data->releases, 2 * i);
  }
  auto const lines = m_log.lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](LogLine const& line)
                          { return line.operation == REQUESTED && line.text == "Left"; }),
            MORE_THAN_MAY_BE_IN_PROGRESS);
}

TEST_F(ExplorerRemotePullTest, NoServiceIsAFailure)
{
  m_explorer.reset(new RemoteExplorerPull("NoSuchService", "localhost", "", "", AT_TQUCLIENT));
  EXPECT_FALSE(request());
  EXPECT_TRUE(m_log.has(1, REQUESTED, "Failed to connect to discovery service")) << m_log.text();
}

TEST_F(ExplorerRemotePullTest, NoMatchIsAFailure)
{
  auto* const records = serveRecords({});
  EXPECT_FALSE(request());
  EXPECT_TRUE(m_log.has(1, REQUESTED, "No records found!")) << m_log.text();
  EXPECT_EQ(records->releases, 1);
}

TEST_F(ExplorerRemotePullTest, TwoMatchesAreAFailureAndNothingIsCopied)
{
  serveRecords({{makeRecord("a"), makeRecord("b")}});
  serveData({"data"});
  EXPECT_FALSE(request());
  EXPECT_TRUE(m_log.has(1, REQUESTED, "Too many records found")) << m_log.text();
  EXPECT_TRUE(m_target.opens.empty());
  EXPECT_TRUE(m_service->dataRequests.empty());
}

TEST_F(ExplorerRemotePullTest, APayloadThatTakesMoreOfTheProcessorsThanItsShareIsReadWithRests)
{
  serveRecords({{makeRecord()}});
  serveData({"a", "b", "c"});
  EXPECT_TRUE(request());
  EXPECT_EQ(PullPace::ofProcess().rested(), PullPace::Clock::duration::zero());
  PullPace::ofProcess().set(0.01, PullPace::Clock::duration::zero());
  EXPECT_TRUE(request());
  EXPECT_GT(PullPace::ofProcess().rested(), PullPace::Clock::duration::zero());
}

TEST_F(ExplorerRemotePullTest, AListThatTakesMoreOfTheProcessorsThanItsShareIsReadWithRests)
{
  serveRecords({{makeRecord()}, {makeRecord()}});
  PullPace::ofProcess().set(0.01, PullPace::Clock::duration::zero());
  EXPECT_FALSE(request());
  EXPECT_GT(PullPace::ofProcess().rested(), PullPace::Clock::duration::zero());
}

TEST_F(ExplorerRemotePullTest, UnreadableSourceIsReportedAsTheTarget)
{
  serveRecords({{makeRecord()}});
  m_service->dataStatus = DS_NONE_FOUND;
  EXPECT_FALSE(request());
  EXPECT_TRUE(m_log.has(1, REQUESTED, "Failed to target open collection data")) << m_log.text();
  EXPECT_TRUE(m_target.opens.empty());
}

TEST_F(ExplorerRemotePullTest, AnEmptyPayloadIsReportedAsTheTarget)
{
  serveRecords({{makeRecord()}});
  serveData({});
  EXPECT_FALSE(request());
  EXPECT_TRUE(
      m_log.has(1, "RemoteCollectionData::openRead", "Collection data returned has no data"))
      << m_log.text();
  EXPECT_TRUE(m_log.has(1, REQUESTED, "Failed to target open collection data")) << m_log.text();
  EXPECT_TRUE(m_target.opens.empty());
  EXPECT_TRUE(m_target.writes.empty());
}

// What was fetched is lost between its fetching and its copying.
TEST_F(ExplorerRemotePullTest, APayloadThatCannotBeReadBackIsAFailure)
{
  serveRecords({{makeRecord()}});
  m_service->makeData = [this]
  {
    auto* const servant = new DataPages;
    servant->pages.assign(6, std::string(1 << 20, 'x'));
    return activate<Remote::CollectionDataIterator>(servant);
  };
  setenv("TMPDIR", m_root.path().c_str(), 1);
  int truncated = 0;
  m_target.beforeOpen = [&]
  {
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
      std::error_code gone;
      auto const path = std::filesystem::read_symlink(entry.path(), gone).string();
      if (!gone && path.starts_with(m_root.path()) && path.ends_with("(deleted)"))
        truncated += truncate(entry.path().c_str(), 0) == 0 ? 1 : 0;
    }
  };
  EXPECT_FALSE(request()) << m_log.text();
  unsetenv("TMPDIR");
  EXPECT_GT(truncated, 0);
  EXPECT_EQ(m_target.opens.size(), 2U);
  EXPECT_TRUE(m_target.writes.empty());
}

TEST_F(ExplorerRemotePullTest, UnwritableTargetIsReportedAsTheSource)
{
  serveRecords({{makeRecord()}});
  serveData({"data"});
  m_target.mayOpen = false;
  EXPECT_FALSE(request());
  EXPECT_TRUE(m_log.has(1, REQUESTED, "Failed to source open colection data")) << m_log.text();
  EXPECT_EQ(m_target.opens.size(), 1U);
}

TEST_F(ExplorerRemotePullTest, SecondOpenFailsWithoutALineOfItsOwn)
{
  serveRecords({{makeRecord()}});
  serveData({"data"});
  m_target.opensLeft = 1;
  EXPECT_FALSE(request());
  EXPECT_EQ(m_target.opens.size(), 2U);
  EXPECT_TRUE(m_target.writes.empty());
  auto const lines = m_log.lines();
  EXPECT_TRUE(std::none_of(lines.begin(), lines.end(),
                           [](LogLine const& line)
                           { return line.level == 1 && line.operation == REQUESTED; }))
      << m_log.text();
}

TEST_F(ExplorerRemotePullTest, ExceptionOfTheQueryIsAFailure)
{
  m_service->before = [] { throw CORBA::COMM_FAILURE(); };
  EXPECT_FALSE(request());
  EXPECT_TRUE(hasText("Caught CORBA Exception while querying for discoveries: COMM_FAILURE"))
      << m_log.text();
}

TEST_F(ExplorerRemotePullTest, ExceptionOfTheRecordsIsAFailure)
{
  auto* const records = serveRecords({{makeRecord()}});
  records->beforePage = [] { throw CORBA::NO_RESOURCES(); };
  EXPECT_FALSE(request());
  EXPECT_TRUE(hasText("Caught CORBA Exception while querying for discoveries: NO_RESOURCES"))
      << m_log.text();
  EXPECT_FALSE(m_log.has(1, REQUESTED, "No records found!"));
}

// Its line for exceptions is for those alone.
TEST_F(ExplorerRemotePullTest, AFetchGivenUpForAnotherReasonIsNoException)
{
  auto* const records = serveRecords({{makeRecord()}, {makeRecord()}});
  records->beforePage = [] { getDiscoveryRepository().shutdown(); };
  EXPECT_FALSE(request());
  EXPECT_TRUE(m_log.has(1, REQUESTED, "Failed to fetch discoveries: shutting down"))
      << m_log.text();
  EXPECT_FALSE(hasText("Caught CORBA Exception")) << m_log.text();
}

TEST_F(ExplorerRemotePullTest, ConcurrentRequestsAreIndependent)
{
  m_service->makeRecords = [this]
  {
    auto* const servant = new RecordPages;
    servant->pages = {{makeRecord()}};
    return activate<Remote::DiscoveryIterator>(servant);
  };
  m_service->makeData = [this]
  {
    auto* const servant = new DataPages;
    servant->pages = {std::string(5000, 'x')};
    return activate<Remote::CollectionDataIterator>(servant);
  };
  std::atomic<int> complete{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back(
        [&]
        {
          Target target;
          AutoDereference<OZFRefCounted> context;
          if (m_explorer->collectionRequested(DQ_DISCOVERY_DATA, Authority("volume", AT_TQUCLIENT),
                                              Subject("hostA"), context, "", &target) &&
              target.writes.size() == 5)
            ++complete;
        });
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(complete, 8) << m_log.text();
}

// Requests that the host lets wait.
class ExplorerRemotePullWaitTest : public ExplorerRemotePullTest
{
protected:
  void SetUp() override
  {
    ExplorerRemotePullTest::SetUp();
    m_service->before = [this]
    {
      std::unique_lock guard(m_mutex);
      m_changed.wait_for(guard, std::chrono::seconds(60), [this] { return m_mayAnswer; });
    };
    m_service->makeRecords = [this]
    {
      auto* const servant = new RecordPages;
      servant->pages = {{makeRecord()}};
      return activate<Remote::DiscoveryIterator>(servant);
    };
    m_service->makeData = [this]
    {
      auto* const servant = new DataPages;
      servant->pages = {"payload"};
      return activate<Remote::CollectionDataIterator>(servant);
    };
  }
  void TearDown() override
  {
    answer();
    for (auto& thread : m_threads)
      thread.join();
    RemoteExplorerPull::setPatience(std::chrono::seconds(10));
    ExplorerRemotePullTest::TearDown();
  }

  static bool requestOf(RemoteExplorerPull& explorer)
  {
    Target target;
    AutoDereference<OZFRefCounted> context;
    return explorer.collectionRequested(DQ_DISCOVERY_DATA, Authority("volume", AT_TQUCLIENT),
                                        Subject("hostA"), context, "", &target);
  }
  // For a peer, or for nobody from the network.
  void start(RemoteExplorerPull& explorer, Peer const* peer = nullptr)
  {
    m_threads.emplace_back(
        [this, &explorer, peer]
        {
          PeerOfCall const from(peer);
          m_complete += requestOf(explorer) ? 1 : 0;
        });
  }
  int asked()
  {
    std::lock_guard guard(m_service->mutex);
    return static_cast<int>(m_service->queries.size());
  }
  void answer()
  {
    std::lock_guard guard(m_mutex);
    m_mayAnswer = true;
    m_changed.notify_all();
  }

  AutoDereference<RemoteExplorerPull> const m_other{
      new RemoteExplorerPull("DiscoveryService", "localhost", "name 3", "name 4", AT_EXTSRC)};
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_mayAnswer = false;
  std::atomic<int> m_complete{0};
  std::vector<std::thread> m_threads;
};

// Twenty of one registration.
class ExplorerRemotePullTurnsTest : public ExplorerRemotePullWaitTest
{
protected:
  static constexpr int LIMIT = RemoteExplorerPull::MOST_REQUESTS;
  static constexpr char REFUSED[] = "Refused a request of this service for data of localhost: 20 "
                                    "that it has not answered are in progress";

  void SetUp() override
  {
    ExplorerRemotePullWaitTest::SetUp();
    for (int i = 0; i < LIMIT; ++i)
      start(*m_explorer);
    EXPECT_TRUE(eventually([this] { return asked() == LIMIT; })) << m_log.text();
    EXPECT_FALSE(hasText("Refused")) << m_log.text();
  }
};

TEST_F(ExplorerRemotePullTurnsTest, OneMoreIsRefusedAfterAWaitWithALineOfItsOwn)
{
  RemoteExplorerPull::setPatience(std::chrono::milliseconds(200));
  auto const asking = std::chrono::steady_clock::now();
  EXPECT_FALSE(requestOf(*m_explorer));
  EXPECT_GE(std::chrono::steady_clock::now() - asking, std::chrono::milliseconds(200));
  EXPECT_EQ(1, m_log.count(1, REQUESTED, REFUSED)) << m_log.text();
  EXPECT_FALSE(hasText("Hostname detected")) << "nothing leads back to this host";
  EXPECT_EQ(LIMIT, asked()) << "the host was not asked";

  Peer peer;
  peer.address = "192.0.2.7";
  AuditCapture const audit;
  {
    PeerOfCall const from(&peer);
    EXPECT_FALSE(requestOf(*m_explorer));
  }
  EXPECT_TRUE(hasText("Refused a request of 192.0.2.7 for data of localhost: 20 that it has not "
                      "answered are in progress"))
      << m_log.text();
  EXPECT_TRUE(audit.has("getCollectionData", "hostA", "volume",
                        "refused: too many requests to that host are in progress already"))
      << audit.text();

  start(*m_other);
  EXPECT_TRUE(eventually([this] { return asked() == LIMIT + 1; }))
      << "another registration has turns of its own\n"
      << m_log.text();
}

TEST_F(ExplorerRemotePullTurnsTest, OneMoreHasItsTurnWhenAnotherEndsInTime)
{
  RemoteExplorerPull::setPatience(std::chrono::seconds(60));
  start(*m_explorer);
  answer();
  EXPECT_TRUE(eventually([this] { return m_complete == LIMIT + 1; })) << m_log.text();
  EXPECT_FALSE(hasText("Refused")) << m_log.text();
  EXPECT_TRUE(requestOf(*m_explorer)) << "there is room again";
}

TEST_F(ExplorerRemotePullWaitTest, RequestsOfPeersHaveAHundredPlacesForAllRegistrations)
{
  constexpr int MOST = RemoteExplorerPull::MOST_SERVED;
  RemoteExplorerPull::setPatience(std::chrono::seconds(60));
  Peer peer;
  peer.address = "192.0.2.7";
  std::deque<AutoDereference<RemoteExplorerPull>> explorers;
  while (static_cast<int>(m_threads.size()) < MOST)
  {
    explorers.emplace_back(
        new RemoteExplorerPull("DiscoveryService", "localhost", "name 3", "name 4", AT_EXTSRC));
    for (int i = 0; i < RemoteExplorerPull::MOST_REQUESTS; ++i)
      start(*explorers.back(), &peer);
    // No more of them connect at a time than may.
    ASSERT_TRUE(eventually([this] { return asked() == static_cast<int>(m_threads.size()); }))
        << m_log.text();
  }

  RemoteExplorerPull::setPatience(std::chrono::milliseconds(500));
  PeerOfCall const from(&peer);
  AuditCapture const audit;
  EXPECT_FALSE(requestOf(*m_other));
  EXPECT_TRUE(audit.has("getCollectionData", "hostA", "volume",
                        "refused: too many requests wait for other hosts already"))
      << audit.text();
  EXPECT_EQ(1, m_log.count(1, REQUESTED,
                           "Refused a request of 192.0.2.7 for data of localhost: 100 requests "
                           "wait for other hosts already"))
      << m_log.text();
  EXPECT_EQ(MOST, asked()) << "the host was not asked";

  answer();
  for (auto& thread : m_threads)
    thread.join();
  m_threads.clear();
  EXPECT_TRUE(requestOf(*m_other)) << "there is room again\n" << m_log.text();
}

TEST_F(ExplorerRemotePullTest, AChainThroughOtherRegistrationsEndsAfterTwenty)
{
  // Each request makes the service ask the next registration, as a host does
  // whose answers lead back to this one. By this address the ORB knows itself.
  std::deque<AutoDereference<RemoteExplorerPull>> explorers;
  for (int i = 0; i < 30; ++i)
    explorers.emplace_back(new RemoteExplorerPull(
        "DiscoveryService", "127.0.0.1", "name " + std::to_string(i), "name 4", AT_EXTSRC));
  std::size_t next = 0;
  m_service->before = [&]
  {
    if (++next >= explorers.size())
      return;
    Target target;
    AutoDereference<OZFRefCounted> context;
    EXPECT_FALSE(explorers[next]->collectionRequested(DQ_DISCOVERY_DATA,
                                                      Authority("volume", AT_TQUCLIENT),
                                                      Subject("hostA"), context, "", &target));
  };
  serveRecords({});
  Target target;
  AutoDereference<OZFRefCounted> context;
  EXPECT_FALSE(explorers[0]->collectionRequested(DQ_DISCOVERY_DATA,
                                                 Authority("volume", AT_TQUCLIENT),
                                                 Subject("hostA"), context, "", &target));
  EXPECT_EQ(1, m_log.count(1, REQUESTED,
                           "Hostname detected as remote and/or master, but appears to be "
                           "connecting back to self, RemoteHost: 127.0.0.1"))
      << m_log.text();
  EXPECT_EQ(20u, m_service->queries.size());
}
