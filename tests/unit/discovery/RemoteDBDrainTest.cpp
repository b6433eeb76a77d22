#include "discovery/RemoteDBDrain.h"

#include "discovery/RemoteDB.h"
#include "tests/support/RemoteOperations.h"
#include "tests/support/RemoteService.h"

#include <gtest/gtest.h>

using namespace tqtest;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

// A clock that the test sets, other threads too.
struct TestClock
{
  static inline std::atomic<std::chrono::steady_clock::rep> now{0};
  static std::chrono::steady_clock::time_point read()
  {
    return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(now));
  }
  static void advance(std::chrono::steady_clock::duration by) { now += by.count(); }

  TestClock() { DrainLimit::setClock(&read); }
  ~TestClock() { DrainLimit::setClock(&std::chrono::steady_clock::now); }
};

struct RemoteDBDrainTest : testing::Test
{
  TestClock const clock;
  DrainLimit const limit;
};

// What is fetched and sent through the ORB.
struct RemoteDBSlowPeerTest : RemoteServiceTest
{
  TestClock const clock;

  static DiscoveryStatus read()
  {
    AutoDereference<Discovery> const discovery(
        getRemoteDiscoveryDatabase().newDiscovery(new Remote::Discovery(makeRecord())));
    return discovery->open(OM_READ, "");
  }
  // Open to be written.
  AutoDereference<Discovery> writer() const
  {
    AutoDereference<Discovery> discovery(
        getRemoteDiscoveryDatabase().newDiscovery(DQ_DISCOVERY_DATA));
    discovery->setSubject(new Subject("subject"));
    discovery->setAuthority(new Authority("authority", AT_TQUCLIENT));
    EXPECT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
    return discovery;
  }
  static long write(Discovery& discovery, std::size_t size)
  {
    std::string const bytes(size, 'x');
    return discovery.getCollectionData()->writeCollection(size, bytes.data());
  }
  AutoDereference<RemoteDiscoveryIterator> query() const
  {
    return AutoDereference<RemoteDiscoveryIterator>(
        new RemoteDiscoveryIterator(AT_TQUCLIENT, "*", "*", m_service->records));
  }
};

} // namespace

TEST_F(RemoteDBDrainTest, TheFirstMinuteIsFree)
{
  EXPECT_FALSE(limit.exceeded(0));
  TestClock::advance(seconds(60));
  EXPECT_FALSE(limit.exceeded(0));
  TestClock::advance(milliseconds(1));
  EXPECT_TRUE(limit.exceeded(0));
}

TEST_F(RemoteDBDrainTest, EveryCallEarnsTwoSeconds)
{
  TestClock::advance(seconds(62));
  EXPECT_TRUE(limit.exceeded(0));
  EXPECT_FALSE(limit.exceeded(1));
  TestClock::advance(seconds(7200) + milliseconds(1));
  EXPECT_TRUE(limit.exceeded(3601));
  EXPECT_FALSE(limit.exceeded(3602));
}

TEST_F(RemoteDBDrainTest, TheMostCallsDoNotWrapRound)
{
  TestClock::advance(seconds(60'000'000));
  EXPECT_FALSE(limit.exceeded(std::size_t(256) << 20));
}

TEST_F(RemoteDBDrainTest, CountsFromItsMaking)
{
  TestClock::advance(seconds(61));
  EXPECT_TRUE(limit.exceeded(0));
  EXPECT_FALSE(DrainLimit().exceeded(0));
}

TEST_F(RemoteDBSlowPeerTest, SmallPagesOverALongWayAreNoSlowPeer)
{
  auto* const data = serveData(std::vector<std::string>(2000, "8 bytes."));
  data->beforePage = [] { TestClock::advance(milliseconds(200)); };
  EXPECT_EQ(read(), DS_SUCCESS) << m_log.text();
  auto* const records =
      serveRecords(std::vector<std::vector<Remote::Discovery>>(2000, {makeRecord("s", "a")}));
  records->beforePage = [] { TestClock::advance(seconds(1)); };
  EXPECT_EQ(query()->failure(), "");
}

TEST_F(RemoteDBSlowPeerTest, DataThatTakesThreeSecondsAPageIsCutOff)
{
  auto* const data = serveData(std::vector<std::string>(100, std::string(1000, 'x')));
  data->beforePage = [] { TestClock::advance(seconds(3)); };
  EXPECT_EQ(read(), DS_OPEN_FAILED);
  EXPECT_TRUE(
      m_log.has(1, RemoteOperations::OPEN_READ, "Collection data from localhost comes too slowly"))
      << m_log.text();
  EXPECT_EQ(data->pagesAsked, 61) << "three seconds each are a minute more than two";
  EXPECT_EQ(data->releases, 1);
}

TEST_F(RemoteDBSlowPeerTest, RecordsThatTakeThreeSecondsAPageAreCutOff)
{
  auto* const records =
      serveRecords(std::vector<std::vector<Remote::Discovery>>(100, {makeRecord("s", "a")}));
  records->beforePage = [] { TestClock::advance(seconds(3)); };
  auto const iterator = query();
  EXPECT_EQ(iterator->failure(), "the discoveries come too slowly");
  EXPECT_FALSE(AutoDereference<Discovery>(iterator->getNext()));
  EXPECT_EQ(records->pagesAsked, 61);
  EXPECT_EQ(records->releases, 1);
}

// Two seconds a call would let it go on for years.
TEST_F(RemoteDBSlowPeerTest, AnAnswerTakesAnHourInAllAtMost)
{
  auto* const data = serveData(std::vector<std::string>(5000, "8 bytes."));
  data->beforePage = [] { TestClock::advance(milliseconds(1900)); };
  auto const start = TestClock::read();
  EXPECT_EQ(read(), DS_OPEN_FAILED);
  EXPECT_LT(TestClock::read() - start, seconds(3602));
  EXPECT_GT(TestClock::read() - start, seconds(3600));
  EXPECT_TRUE(
      m_log.has(1, RemoteOperations::OPEN_READ, "Collection data from localhost comes too slowly"))
      << m_log.text();

  auto* const records =
      serveRecords(std::vector<std::vector<Remote::Discovery>>(5000, {makeRecord("s", "a")}));
  records->beforePage = [] { TestClock::advance(milliseconds(1900)); };
  EXPECT_EQ(query()->failure(), "the discoveries come too slowly");
  EXPECT_LT(TestClock::read() - start, seconds(7204));
}

TEST_F(RemoteDBSlowPeerTest, TheConfigurationSaysHowLongAnAnswerMayTake)
{
  configure("READ_LIMIT_SECONDS = 20\n");
  auto* const data = serveData(std::vector<std::string>(100, "8 bytes."));
  data->beforePage = [] { TestClock::advance(seconds(1)); };
  EXPECT_EQ(read(), DS_OPEN_FAILED);
  EXPECT_EQ(data->pagesAsked, 21);
}

TEST_F(RemoteDBSlowPeerTest, AllAnswersBeforeTheThreadsDeadlineCountTogether)
{
  auto* const data = serveData(std::vector<std::string>(10, "8 bytes."));
  data->beforePage = [] { TestClock::advance(seconds(1)); };
  {
    ReadDeadline const deadline(seconds(30));
    EXPECT_EQ(read(), DS_SUCCESS) << m_log.text();
    EXPECT_EQ(read(), DS_SUCCESS) << m_log.text();
    {
      ReadDeadline const longer(seconds(1000));
      EXPECT_EQ(read(), DS_OPEN_FAILED) << "the earlier end holds";
    }
    EXPECT_EQ(data->pagesAsked, 31);
    EXPECT_EQ(read(), DS_OPEN_FAILED);
    EXPECT_EQ(data->pagesAsked, 31) << "it is not even asked";
  }
  EXPECT_EQ(read(), DS_SUCCESS) << m_log.text();
}

TEST_F(RemoteDBSlowPeerTest, OneRecordHoldsTheListOfClientsUpForAMinuteAtMost)
{
  serveRecords({{makeRecord("slow", "volume"), makeRecord("next", "volume")}});
  auto* const data = serveData(std::vector<std::string>(200, std::string(8, ' ')));
  data->beforePage = [] { TestClock::advance(milliseconds(1900)); };
  auto const start = TestClock::read();
  getDiscoveryRepository().getDiscoveredClientList();
  // Both authorities have both records.
  EXPECT_GT(TestClock::read() - start, seconds(60));
  EXPECT_LT(TestClock::read() - start, 4 * seconds(62));
}

TEST_F(RemoteDBSlowPeerTest, ManyPiecesOverALongWayAreNoSlowMaster)
{
  auto* const master = serveWriter();
  master->beforePut = [] { TestClock::advance(seconds(1)); };
  auto const discovery = writer();
  EXPECT_EQ(write(*discovery, 100 * 1024), 1) << m_log.text();
  EXPECT_EQ(write(*discovery, 100 * 1024), 1) << m_log.text();
  EXPECT_EQ(master->chunks.size(), 200U);
}

TEST_F(RemoteDBSlowPeerTest, AMasterThatTakesThreeSecondsAPieceIsGivenUp)
{
  auto* const master = serveWriter();
  master->beforePut = [] { TestClock::advance(seconds(3)); };
  auto const discovery = writer();
  EXPECT_EQ(write(*discovery, 100 * 1024), 0);
  EXPECT_EQ(master->chunks.size(), 61U) << "three seconds each are a minute more than two";
  EXPECT_EQ(
      m_log.count(1, RemoteOperations::WRITE, "The master takes the collection data too slowly"), 1)
      << m_log.text();
  EXPECT_EQ(m_log.count(1, RemoteOperations::WRITE, "Failed to write buffer"), 1) << m_log.text();
  EXPECT_EQ(write(*discovery, 1), 0);
  EXPECT_EQ(master->chunks.size(), 61U) << "it is not asked again";
}

TEST_F(RemoteDBSlowPeerTest, ALargePieceMayTakeAsLongAsTheSmallOnesThatItStandsFor)
{
  configure("COLLECTION_WRITE_SIZE = 65536\n");
  auto* const master = serveWriter();
  master->beforePut = [] { TestClock::advance(seconds(100)); };
  auto const discovery = writer();
  EXPECT_EQ(write(*discovery, 640 * 1024), 1) << m_log.text();
  EXPECT_EQ(master->chunks.size(), 10U);
  master->beforePut = [] { TestClock::advance(seconds(1000)); };
  EXPECT_EQ(write(*discovery, 640 * 1024), 0);
}

TEST_F(RemoteDBSlowPeerTest, AllWritesOfOnePayloadCountTogether)
{
  auto* const master = serveWriter();
  master->beforePut = [] { TestClock::advance(seconds(3)); };
  auto const discovery = writer();
  int written = 0;
  while (written < 100 && write(*discovery, 8) != 0)
    ++written;
  EXPECT_EQ(written, 61);
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS);
  EXPECT_EQ(write(*discovery, 8), 1) << "another writer has its own count";
}

TEST_F(RemoteDBSlowPeerTest, WhatTheWriterTakesItselfIsNotTheMasters)
{
  auto* const master = serveWriter();
  auto const discovery = writer();
  for (int i = 0; i < 3; ++i)
  {
    TestClock::advance(seconds(3600));
    EXPECT_EQ(write(*discovery, 2000), 1) << m_log.text();
  }
  EXPECT_EQ(master->chunks.size(), 6U);
}

TEST_F(RemoteDBSlowPeerTest, AShutdownLetsAPayloadThatIsBeingSentEnd)
{
  auto* const master = serveWriter();
  master->beforePut = [master]
  {
    if (master->chunks.size() == 2)
      getDiscoveryRepository().shutdown();
  };
  auto const discovery = writer();
  EXPECT_EQ(write(*discovery, 5 * 1024), 1) << m_log.text();
  EXPECT_EQ(master->chunks.size(), 5U);
  EXPECT_EQ(discovery->persist(), DS_SUCCESS);
}

TEST_F(RemoteDBSlowPeerTest, AShutdownEndsTheFetchOfDataAfterThePageInHand)
{
  auto* const data = serveData(std::vector<std::string>(50, "8 bytes."));
  data->beforePage = [data]
  {
    if (data->pagesAsked == 2)
      getDiscoveryRepository().shutdown();
  };
  EXPECT_EQ(read(), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_READ,
                        "Shutting down, gave up the collection data from localhost"))
      << m_log.text();
  EXPECT_EQ(data->pagesAsked, 3);
  EXPECT_EQ(data->releases, 0) << "one call more to a slow peer";
}

TEST_F(RemoteDBSlowPeerTest, AShutdownEndsTheFetchOfRecordsAfterThePageInHand)
{
  auto* const records =
      serveRecords(std::vector<std::vector<Remote::Discovery>>(50, {makeRecord("s", "a")}));
  records->beforePage = [records]
  {
    if (records->pagesAsked == 2)
      getDiscoveryRepository().shutdown();
  };
  auto const iterator = query();
  EXPECT_EQ(iterator->failure(), "shutting down");
  EXPECT_FALSE(AutoDereference<Discovery>(iterator->getNext()));
  EXPECT_EQ(records->pagesAsked, 3);
  EXPECT_EQ(records->releases, 0) << "one call more to a slow peer";
}
