// Which connections are ended for being slow.

#include "ozf/base/SystemError.h"
#include "web/Connections.h"

#include <gtest/gtest.h>

#include <list>
#include <sys/socket.h>

using namespace Web;
using namespace std::chrono_literals;

namespace
{

// A connection with both of its ends.
struct SocketPair
{
  explicit SocketPair(Connections& connections) : all(connections)
  {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    server = Quillon::Tessarine::Ozf::UniqueFd(ends[0]);
    client = Quillon::Tessarine::Ozf::UniqueFd(ends[1]);
    peer.fd = server.get();
    all.opened(&peer);
  }
  ~SocketPair() { all.closed(&peer); }
  SocketPair(SocketPair const&) = delete;
  SocketPair& operator=(SocketPair const&) = delete;

  bool isEnded() const
  {
    char c = 0;
    return recv(client.get(), &c, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
  }

  Connections& all;
  Quillon::Tessarine::Ozf::UniqueFd server;
  Quillon::Tessarine::Ozf::UniqueFd client;
  Peer peer;
};

class ConnectionsTest : public testing::Test
{
protected:
  Connections m_connections{{8, 10s, 70s}};
  Peer::Steady::time_point const m_begin = Peer::Steady::now();
};

} // namespace

TEST_F(ConnectionsTest, EachHasTheTimeOfItsPhase)
{
  SocketPair idle(m_connections);
  SocketPair answering(m_connections);
  SocketPair listening(m_connections);
  m_connections.enter(&answering.peer, Peer::ANSWERING);
  m_connections.enter(&listening.peer, Peer::ENDLESS);
  EXPECT_EQ(m_connections.endSlow(m_begin + 9s), 0U);
  EXPECT_FALSE(idle.isEnded());
  EXPECT_EQ(m_connections.endSlow(m_begin + 12s), 1U);
  EXPECT_TRUE(idle.isEnded());
  EXPECT_FALSE(answering.isEnded());
  m_connections.endSlow(m_begin + 72s);
  EXPECT_TRUE(answering.isEnded());
  m_connections.endSlow(m_begin + 10h);
  EXPECT_FALSE(listening.isEnded());
}

TEST_F(ConnectionsTest, TheTimeIsThatOfTheRequestNotOfTheConnection)
{
  SocketPair pair(m_connections);
  pair.peer.since = m_begin - 1h;
  m_connections.enter(&pair.peer, Peer::IDLE);
  EXPECT_EQ(m_connections.endSlow(m_begin + 9s), 0U);
}

// More than three quarters of those that there may be.
TEST_F(ConnectionsTest, WhereItIsCrowdedThoseThatAskNothingGoSoon)
{
  std::list<SocketPair> pairs;
  for (int i = 0; i < 6; ++i)
    pairs.emplace_back(m_connections);
  m_connections.enter(&pairs.front().peer, Peer::ANSWERING);
  EXPECT_EQ(m_connections.endSlow(m_begin + 2s), 0U);
  pairs.emplace_back(m_connections);
  EXPECT_EQ(m_connections.count(), 7U);
  EXPECT_EQ(m_connections.endSlow(m_begin + 2s), 6U);
  EXPECT_FALSE(pairs.front().isEnded());
  pairs.pop_back();
  EXPECT_EQ(m_connections.count(), 6U);
}
