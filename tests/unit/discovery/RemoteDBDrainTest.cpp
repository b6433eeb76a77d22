#include "discovery/RemoteDBDrain.h"

#include "discovery/RemoteDB.h"
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

// What is fetched through the ORB.
struct RemoteDBSlowPeerTest : RemoteServiceTest
{
  TestClock const clock;

  static DiscoveryStatus read()
  {
    AutoDereference<Discovery> const discovery(
        getRemoteDiscoveryDatabase().newDiscovery(new Remote::Discovery(makeRecord())));
    return discovery->open(OM_READ, "");
  }
  AutoDereference<RemoteDiscoveryIterator> query() const
  {
    return AutoDereference<RemoteDiscoveryIterator>(
        new RemoteDiscoveryIterator(AT_TQUCLIENT, "*", "*", m_service->records));
  }
};

constexpr char OPEN_READ[] = "RemoteCollectionData::openRead";

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
  EXPECT_TRUE(m_log.has(1, OPEN_READ, "Collection data from localhost comes too slowly"))
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

TEST_F(RemoteDBSlowPeerTest, AShutdownEndsTheFetchOfDataAfterThePageInHand)
{
  auto* const data = serveData(std::vector<std::string>(50, "8 bytes."));
  data->beforePage = [data]
  {
    if (data->pagesAsked == 2)
      getDiscoveryRepository().shutdown();
  };
  EXPECT_EQ(read(), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, OPEN_READ, "Shutting down, gave up the collection data from localhost"))
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
