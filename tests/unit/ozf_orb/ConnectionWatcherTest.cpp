#include "ozf/orb/ConnectionWatcher.h"

#include "ozf/config/Configuration.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ProbeServant.h"

#include <deque>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Numbers = std::vector<ConnectionNumber>;

// Something has come in over it, which is what the test says.
class TalkingPeer final : public WatchedConnection
{
public:
  TalkingPeer(ConnectionNumber number, Arrived what) : m_what(what)
  {
    m_peer.connection = number;
    m_peer.address = "192.0.2." + std::to_string(number);
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    m_near.reset(fds[0]);
    m_far.reset(fds[1]);
    EXPECT_EQ(write(fds[1], "x", 1), 1);
  }
  Peer const& peer() const noexcept override { return m_peer; }
  int descriptor() const noexcept override { return m_near.get(); }
  Arrived readAvailable() override
  {
    ++reads;
    return m_what;
  }
  Arrived arrived() noexcept override { return NOTHING; }
  std::uint64_t received() const noexcept override { return 1; }
  void abandon() noexcept override {}
  RequestRate* rate() const noexcept override { return &m_rate; }

  // Whether a request of it was counted, of the one a second that it may make.
  bool isCounted() const { return !m_rate.admits(m_start); }

  std::atomic<int> reads{0};

private:
  Arrived const m_what;
  mutable RequestRate m_rate;
  RequestRate::Clock::time_point const m_start = RequestRate::Clock::now();
  Peer m_peer;
  UniqueFd m_near;
  UniqueFd m_far;
};

class ConnectionWatcherTest : public testing::Test
{
protected:
  ConnectionWatcherTest() : m_watcher(oneOfEach()) { m_watcher.allow(take, this); }

  static WatchLimits oneOfEach()
  {
    WatchLimits limits;
    limits.largeRequests = 1;
    limits.callsOfAddress = 1;
    limits.stall = std::chrono::minutes(10);
    return limits;
  }

  TalkingPeer& comes(WatchedConnection::Arrived what)
  {
    auto& peer = m_peers.emplace_back(m_peers.size() + 1, what);
    m_watcher.add(peer);
    m_watcher.watch(peer);
    return peer;
  }

  Numbers taken()
  {
    std::lock_guard guard(m_mutex);
    return m_taken;
  }
  bool areTaken(Numbers const& numbers)
  {
    return eventually([&] { return taken() == numbers; });
  }

  std::atomic<int> m_outOfMemory{0}; // so many times

private:
  static void take(void* cookie, WatchedConnection& connection)
  {
    auto& test = *static_cast<ConnectionWatcherTest*>(cookie);
    if (test.m_outOfMemory > 0)
    {
      --test.m_outOfMemory;
      throw std::bad_alloc();
    }
    std::lock_guard guard(test.m_mutex);
    test.m_taken.push_back(connection.peer().connection);
  }

  std::mutex m_mutex;
  Numbers m_taken; // in their order
  std::deque<TalkingPeer> m_peers;

protected:
  ConnectionWatcher m_watcher;
};

} // namespace

TEST_F(ConnectionWatcherTest, whatNoThreadCouldTakeIsHandedOverAgain)
{
  m_outOfMemory = 2;
  TalkingPeer const& peer = comes(WatchedConnection::READY);
  EXPECT_TRUE(areTaken({1}));
  EXPECT_EQ(peer.reads, 3);
}

TEST_F(ConnectionWatcherTest, aSmallRequestTakesNoPlaceOfALargeOne)
{
  comes(WatchedConnection::READY);
  EXPECT_TRUE(areTaken({1}));
  comes(WatchedConnection::LARGE);
  EXPECT_TRUE(areTaken({1, 2}));
}

TEST_F(ConnectionWatcherTest, aLargeRequestWaitsUntilTheOneBeforeItHasBeenRead)
{
  TalkingPeer const& first = comes(WatchedConnection::LARGE);
  EXPECT_TRUE(areTaken({1}));
  TalkingPeer const& second = comes(WatchedConnection::LARGE);
  EXPECT_TRUE(eventually([&] { return second.reads == 1; }));
  comes(WatchedConnection::READY);
  EXPECT_TRUE(areTaken({1, 3})) << "the large one waits, and the small one does not";
  m_watcher.largeIsRead(first);
  EXPECT_TRUE(areTaken({1, 3, 2}));
}

TEST_F(ConnectionWatcherTest, theEndOfAConnectionIsNoRequest)
{
  LogCapture const quiet;
  overrideConfiguration("LIMIT_PEER_REQUESTS", "1");
  reloadConfiguration();
  TalkingPeer const& gone = comes(WatchedConnection::ENDED);
  EXPECT_TRUE(areTaken({1}));
  EXPECT_FALSE(gone.isCounted());
  TalkingPeer const& calling = comes(WatchedConnection::READY);
  EXPECT_TRUE(areTaken({1, 2}));
  EXPECT_TRUE(calling.isCounted());
}
