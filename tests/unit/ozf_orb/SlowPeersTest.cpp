#include "ozf/orb/SlowPeers.h"

#include "ozf/base/SystemError.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <deque>
#include <string>

using namespace Quillon::Tessarine::Ozf;

namespace
{

struct SlowPeer final : WatchedConnection
{
  explicit SlowPeer(std::string const& address) { whom.address = address; }
  Peer const& peer() const noexcept override { return whom; }
  int descriptor() const noexcept override { return -1; }
  Arrived readAvailable() override { return NOTHING; }
  Arrived arrived() noexcept override { return NOTHING; }
  std::uint64_t received() const noexcept override { return 0; }
  void abandon() noexcept override { abandoned = true; }

  Peer whom;
  bool abandoned = false;
};

struct Pair
{
  Pair()
  {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    near.reset(fds[0]);
    far.reset(fds[1]);
  }
  UniqueFd near;
  UniqueFd far;
};

} // namespace

TEST(SlowPeersTest, beyondTheMostTheLongestWaitOfTheAddressWithMostIsEnded)
{
  std::deque<SlowPeer> peers;
  std::deque<WaitForPeer> waits;
  auto const wait = [&](std::string const& address) -> SlowPeer&
  {
    waits.emplace_back(peers.emplace_back(address));
    return peers.back();
  };
  SlowPeer const& honest = wait("192.0.2.1");
  while (waits.size() < WaitForPeer::MOST / 2)
    wait("192.0.2.2");
  while (waits.size() < WaitForPeer::MOST)
    wait("192.0.2.3");
  auto const ended = [&]
  {
    return std::count_if(peers.begin(), peers.end(),
                         [](auto const& each) { return each.abandoned; });
  };
  EXPECT_EQ(ended(), 0);
  wait("192.0.2.2");
  EXPECT_EQ(ended(), 1);
  EXPECT_TRUE(peers[WaitForPeer::MOST / 2].abandoned)
      << "the first of the third address, which has most";
  for (int i = 0; i < 50; ++i)
    wait("192.0.2.2");
  EXPECT_EQ(ended(), 51);
  EXPECT_FALSE(honest.abandoned) << "although it waits longest";
  EXPECT_TRUE(peers[1].abandoned);
  // Whoever has got on makes room.
  waits.pop_back();
  wait("192.0.2.4");
  EXPECT_EQ(ended(), 51);
  // So do the ended ones only once.
  while (!waits.empty())
    waits.pop_front();
  std::size_t const before = peers.size();
  while (waits.size() < WaitForPeer::MOST)
    wait("192.0.2.5");
  EXPECT_EQ(ended(), 51);
  wait("192.0.2.5");
  EXPECT_TRUE(peers[before].abandoned);
}

TEST(SlowPeersTest, whatASocketTakesIsSentAtOnce)
{
  Pair pair;
  char bytes[1000] = "answer";
  EXPECT_EQ(sendAtOnce(pair.near.get(), bytes, 6), 6);
  EXPECT_EQ(recv(pair.far.get(), bytes, sizeof bytes, 0), 6);
  while (sendAtOnce(pair.near.get(), bytes, sizeof bytes) > 0)
  {
  }
  EXPECT_EQ(sendAtOnce(pair.near.get(), bytes, sizeof bytes), 0) << "it would have to wait";
  pair.far.reset();
  EXPECT_LT(sendAtOnce(pair.near.get(), bytes, sizeof bytes), 0);
}

TEST(SlowPeersTest, aFarewellIsKnown)
{
  EXPECT_TRUE(isFarewell("GIOP\1\2\1\5\0\0\0\0", 12));
  EXPECT_FALSE(isFarewell("GIOP\1\2\1\1\0\0\0\0", 12));
  EXPECT_FALSE(isFarewell("GIOP\1\2\1\5\0\0\0\0", 11));
}
