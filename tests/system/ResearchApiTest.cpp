// The research API over a service of another process that does not resolve,
// refuses, says nothing, stands still or dies: the caller gets null or an
// unread collection and log lines, and never hangs.

#include "discovery/RemoteDB.h"
#include "discovery/Researcher.h"
#include "tests/support/LiveService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoHost.h"
#include "tests/support/StoredRecord.h"
#include "tests/support/UnwellService.h"

#include <gtest/gtest.h>

#include <future>

namespace
{

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

constexpr char PARSE_PAYLOAD[] = "AuthSubIterator::parseDiscovery";
constexpr char NEXT_ITEMS[] = "AuthSubIterator::getNextCollectionItemIterator";

// This process reads, as a component of the product does; the service is
// another one.
class ResearchApiTest : public testing::Test
{
protected:
  static constexpr long REQUEST_SECONDS = 3;
  static constexpr std::chrono::seconds DEADLINE{60};

  void SetUp() override { setenv("TESSARINE_ROOT", m_service.root().c_str(), 1); }

  void TearDown() override
  {
    if (m_researching)
      deinitDiscoveryResearch();
    setOrb(nullptr);
    m_orb.shutdown();
  }

  // What the service finds in its database when it starts.
  static void fillDatabase(int records, std::size_t bytes)
  {
    getDiscoveryDBDatabase()->init("");
    for (int i = 0; i < records; ++i)
      ASSERT_EQ(stored::write("subject" + std::to_string(i), 1, bytes), DS_SUCCESS);
  }

  // The ORB's request time-out bounds every call; a component sets it on the
  // ORB that it hands in.
  void research(long requestSeconds = REQUEST_SECONDS)
  {
    reloadConfiguration();
    ASSERT_TRUE(m_orb.init()) << m_log.text();
    ASSERT_EQ(m_orb.run(0), 0);
    m_orb.setRequestTimeout(ACE_Time_Value(requestSeconds));
    setOrb(&m_orb);
    initDiscoveryResearch();
    m_researching = true;
  }

  void researchAt(std::string const& server, unsigned short port)
  {
    writeText(m_service / "etc/tq.conf",
              "CLIENT_NAME = reader\nSERVER = " + server +
                  "\nORB_BIND = 127.0.0.1\nORB_PORT.DiscoveryService = " + std::to_string(port) +
                  "\n");
    research();
  }

  static AutoDereference<AuthSubIterator> queryAll()
  {
    return getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL);
  }

  // Runs work in a thread of its own until the service has been at it for a
  // while, then stops the service there. False when the work was done first.
  template <class Work>
  bool stopInTheMiddle(Work work, std::future<void>& running)
  {
    pid_t const service = m_service.process().pid();
    long const before = waitsOf(service);
    running = std::async(std::launch::async, work);
    // It may be at it for a few milliseconds only.
    auto const end = std::chrono::steady_clock::now() + DEADLINE;
    while (waitsOf(service) <= before + WAITS_IN_THE_MIDDLE &&
           running.wait_for(std::chrono::microseconds(50)) != std::future_status::ready)
      if (std::chrono::steady_clock::now() > end)
      {
        ADD_FAILURE() << "the service does nothing";
        break;
      }
    m_service.process().freeze();
    return running.wait_for(std::chrono::milliseconds(200)) != std::future_status::ready;
  }

  void killService()
  {
    m_service.process().sendSignal(SIGKILL);
    ASSERT_TRUE(m_service.process().wait());
  }

  // Whether a line of that level and operation begins so.
  bool logged(std::string const& operation, std::string const& beginning) const
  {
    auto const lines = m_log.lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](auto const& line) {
                         return line.level == 1 && line.operation == operation &&
                                line.text.rfind(beginning, 0) == 0;
                       });
  }

  void expectNoHandle()
  {
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(queryAll());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, DEADLINE);
    EXPECT_TRUE(m_log.has(1, "getAuthSubIterator", "Failed to get a handle to discoveries"))
        << m_log.text();
  }

  LiveService m_service;
  LogCapture m_log;
  Orb m_orb{0, "", "reader", 1, 64};
  bool m_researching = false;
};

TEST_F(ResearchApiTest, aMasterWhoseNameDoesNotResolveGivesNull)
{
  researchAt(NO_HOST, freePort());
  expectNoHandle();
  EXPECT_TRUE(logged("connectToRemoteDS", "Failed to connect to remote discovery service"))
      << m_log.text();
}

TEST_F(ResearchApiTest, aMasterThatRefusesGivesNull)
{
  researchAt("127.0.0.1", freePort());
  expectNoHandle();
  EXPECT_TRUE(logged("connectToRemoteDS", "Failed to connect to remote discovery service"))
      << m_log.text();
}

TEST_F(ResearchApiTest, aMasterThatNeverAnswersGivesNullAfterTheTimeOut)
{
  SilentPort const silent;
  researchAt("127.0.0.1", silent.port());
  auto const begin = std::chrono::steady_clock::now();
  expectNoHandle();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(REQUEST_SECONDS - 1))
      << "it was waited for";
  EXPECT_TRUE(logged("connectToRemoteDS", "Failed to connect to remote discovery service"))
      << m_log.text();
}

TEST_F(ResearchApiTest, aServiceThatStandsStillTimesOutAndIsReadAgainWhenItGoesOn)
{
  fillDatabase(3, 100);
  ASSERT_TRUE(m_service.start()) << m_service.log();
  research();
  auto const discoveries = queryAll();
  ASSERT_TRUE(discoveries) << m_log.text();

  m_service.process().freeze();
  expectNoHandle();
  AutoDereference<CollectionItemIterator> const items(
      discoveries->getNextCollectionItemIterator(nullptr));
  ASSERT_TRUE(items);
  EXPECT_FALSE(items->isParsed());
  EXPECT_TRUE(m_log.has(1, PARSE_PAYLOAD, "Failed to read collection data")) << m_log.text();

  m_service.process().sendSignal(SIGCONT);
  EXPECT_TRUE(eventually([] { return static_cast<bool>(queryAll()); }, DEADLINE)) << m_log.text();
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(ResearchApiTest, aServiceKilledBetweenTwoPagesOfRecordsFailsTheIterator)
{
  fillDatabase(50, 100);
  ASSERT_TRUE(m_service.start()) << m_service.log();
  research();
  OzfHostname host;
  host.setHostname(LiveService::NAME);
  Remote::DiscoveryService_var const service = connectToRemoteDS(host, &m_orb, "DiscoveryService");
  ASSERT_FALSE(CORBA::is_nil(service.in()));
  Remote::DiscoveryIterator_var const pages =
      service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*");
  Remote::DiscoverySeq_var const first = pages->getNextPage();
  ASSERT_GT(first->length(), 0U);
  ASSERT_LT(first->length(), 50U);

  killService();
  AutoDereference<RemoteDiscoveryIterator> const iterator(
      new RemoteDiscoveryIterator(AT_ANYANDALL, "*", "*", pages));
  EXPECT_NE(iterator->failure(), "");
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_TRUE(
      logged("RemoteDiscoveryIterator::RemoteDiscoveryIterator", "Failed to fetch discoveries: "))
      << m_log.text();
}

TEST_F(ResearchApiTest, aServiceKilledInTheMiddleOfAQueryGivesNull)
{
  m_service.configure("DISCOVERY_PAGE_SIZE = 1\n"); // so that it takes its time
  fillDatabase(1000, 10);
  ASSERT_TRUE(m_service.start()) << m_service.log();
  research();
  bool found = true;
  std::future<void> running;
  for (int tries = 0; found && tries < 200; ++tries)
  {
    if (!stopInTheMiddle([&found] { found = static_cast<bool>(queryAll()); }, running))
    {
      m_service.process().sendSignal(SIGCONT);
      continue;
    }
    killService();
    ASSERT_EQ(running.wait_for(DEADLINE), std::future_status::ready);
    if (found) // the whole answer was on its way
    {
      ASSERT_TRUE(m_service.start()) << m_service.log();
    }
  }
  EXPECT_FALSE(found) << "the query was always done first";
  EXPECT_TRUE(
      logged("DiscoveryRepository::queryRemoteDiscoveries", "Failed to query remote discoveries: "))
      << m_log.text();
  EXPECT_TRUE(m_log.has(1, "getAuthSubIterator", "Failed to get a handle to discoveries"))
      << m_log.text();
}

TEST_F(ResearchApiTest, aServiceKilledInTheMiddleOfAPayloadFailsThatAndTheFollowingOnes)
{
  // Pages of eight bytes: reading one takes minutes.
  fillDatabase(2, std::size_t(32) << 20);
  ASSERT_TRUE(m_service.start()) << m_service.log();
  research();
  auto const discoveries = queryAll();
  ASSERT_TRUE(discoveries) << m_log.text();

  AutoDereference<CollectionItemIterator> items;
  std::future<void> running;
  ASSERT_TRUE(stopInTheMiddle(
      [&] { items.reset(discoveries->getNextCollectionItemIterator(nullptr)); }, running));
  killService();
  ASSERT_EQ(running.wait_for(DEADLINE), std::future_status::ready);
  ASSERT_TRUE(items);
  EXPECT_FALSE(items->isParsed());
  EXPECT_EQ(items->getNextCollectionItem(), nullptr);
  EXPECT_TRUE(logged("RemoteCollectionData::openRead",
                     "Caught CORBA Exception while reading collection data: "))
      << m_log.text();

  items.reset(discoveries->getNextCollectionItemIterator(nullptr));
  ASSERT_TRUE(items) << "the iterator goes on";
  EXPECT_FALSE(items->isParsed());
  EXPECT_TRUE(logged("RemoteCollectionData::openRead", "Failed to connect to discovery service"))
      << m_log.text();
  EXPECT_EQ(m_log.count(1, PARSE_PAYLOAD, "Failed to read collection data"), 2) << m_log.text();
  EXPECT_EQ(m_log.count(1, NEXT_ITEMS, "Failed to parse discovery"), 2) << m_log.text();
  EXPECT_EQ(discoveries->getNextCollectionItemIterator(nullptr), nullptr);
}

TEST_F(ResearchApiTest, anOrbOfTheApisOwnTimesOutToo)
{
  fillDatabase(1, 100);
  ASSERT_TRUE(m_service.start()) << m_service.log();
  reloadConfiguration();
  initDiscoveryResearch();
  m_researching = true;
  m_service.process().freeze();
  auto const begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(queryAll());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(150));
  m_service.process().sendSignal(SIGCONT);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(ResearchApiTest, aProgramMayEndWithoutPuttingTheApiAway)
{
  std::string const reader = TQ_BIN_DIR "/research_reader";
  m_service.configure("COLLECTION_PAGE_SIZE = 65536\n");
  ASSERT_EQ(runProgram(reader, {m_service.root(), "store", "left", "1"}).exitCode, 0);
  ASSERT_TRUE(m_service.start());
  Outcome const left = runProgram(reader, {m_service.root(), "leave", "left", "1"});
  EXPECT_EQ(left.exitCode, 0) << left.errors;
  EXPECT_THAT(left.output, testing::HasSubstr("parsed 1"));
}

} // namespace
