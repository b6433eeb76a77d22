#include "ozf/orb/Connection.h"

#include "ozf/config/Configuration.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <memory>
#include <string>

using namespace Quillon::Tessarine::Ozf;

namespace
{

// Stands below a connection whose socket is read from past it.
class SilentConnection final : public omni::giopConnection
{
public:
  int Send(void*, std::size_t, omni_time_t const&) override { return -1; }
  int Recv(void*, std::size_t, omni_time_t const&) override { return -1; }
  void Shutdown() override {}
  char const* myaddress() override { return ""; }
  char const* peeraddress() override { return ""; }
  void setSelectable(int, _CORBA_Boolean) override {}
  void clearSelectable() override {}
  _CORBA_Boolean isSelectable() override { return true; }
  _CORBA_Boolean Peek() override { return false; }

private:
  ~SilentConnection() override = default;
};

struct PeekedConnection
{
  PeekedConnection(ConnectionNumber number, std::shared_ptr<ConnectionWatcher> const& watcher,
                   std::shared_ptr<RequestRate> const& rate = nullptr)
  {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    near.reset(fds[0]);
    far.reset(fds[1]);
    std::list<Peer> peer(1);
    peer.front().connection = number;
    peer.front().address = "192.0.2.1";
    connection =
        new Connection(new SilentConnection, fds[0], nullptr, std::move(peer), watcher, rate);
  }
  ~PeekedConnection() { connection->decrRefCount(true); }
  PeekedConnection(PeekedConnection const&) = delete;
  PeekedConnection& operator=(PeekedConnection const&) = delete;

  // The beginning of a request with a body of that size, or all of it.
  void receive(std::size_t body)
  {
    std::string request("GIOP\1\2\1\0", 8);
    for (unsigned shift = 0; shift < 32; shift += 8)
      request += static_cast<char>(body >> shift);
    request.append(std::min(body, GuardedInput::CAPACITY), '\0');
    EXPECT_EQ(write(far.get(), request.data(), request.size()),
              static_cast<ssize_t>(request.size()));
  }

  UniqueFd near;
  UniqueFd far;
  Connection* connection = nullptr;
};

constexpr std::size_t SMALL_REQUEST = 24; // requests
constexpr std::size_t LARGE_REQUEST = 100'000;

std::shared_ptr<ConnectionWatcher> oneLargeRequest()
{
  WatchLimits limits;
  limits.largeRequests = 1;
  return std::make_shared<ConnectionWatcher>(limits);
}

// A peer that may make one request a second, and whether it has made that.
class PeekedConnectionOfOneRequest : public PeekedConnection
{
public:
  PeekedConnectionOfOneRequest(ConnectionNumber number,
                               std::shared_ptr<ConnectionWatcher> const& watcher)
      : PeekedConnectionOfOneRequest(number, watcher, std::make_shared<RequestRate>())
  {
  }

  bool isCounted() const { return !m_rate->admits(m_start); }

private:
  PeekedConnectionOfOneRequest(ConnectionNumber number,
                               std::shared_ptr<ConnectionWatcher> const& watcher,
                               std::shared_ptr<RequestRate> const& rate)
      : PeekedConnection(number, watcher, rate), m_rate(rate)
  {
  }

  std::shared_ptr<RequestRate> const m_rate;
  RequestRate::Clock::time_point const m_start = RequestRate::Clock::now();
};

} // namespace

TEST(ConnectionTest, itsThreadGoesOnWithTheRequestsThatItMay)
{
  auto const watcher = oneLargeRequest();
  PeekedConnection small(1, watcher);
  PeekedConnection large(2, watcher);
  PeekedConnection oneTooMany(3, watcher);
  EXPECT_FALSE(small.connection->Peek()) << "nothing has come";
  small.receive(SMALL_REQUEST);
  EXPECT_TRUE(small.connection->Peek());
  large.receive(LARGE_REQUEST);
  EXPECT_TRUE(large.connection->Peek());
  oneTooMany.receive(LARGE_REQUEST);
  EXPECT_FALSE(oneTooMany.connection->Peek());
  watcher->largeIsRead(*large.connection);
  EXPECT_TRUE(oneTooMany.connection->Peek());
}

TEST(ConnectionTest, countsTheRequestsThatItsThreadGoesOnWithAndNothingElse)
{
  LogCapture const quiet;
  overrideConfiguration("LIMIT_PEER_REQUESTS", "1");
  reloadConfiguration();
  auto const watcher = oneLargeRequest();
  PeekedConnectionOfOneRequest small(1, watcher);
  small.receive(SMALL_REQUEST);
  EXPECT_TRUE(small.connection->Peek());
  EXPECT_TRUE(small.isCounted());
  PeekedConnectionOfOneRequest large(2, watcher);
  large.receive(LARGE_REQUEST);
  EXPECT_TRUE(large.connection->Peek());
  EXPECT_TRUE(large.isCounted());
  PeekedConnectionOfOneRequest oneTooMany(3, watcher);
  oneTooMany.receive(LARGE_REQUEST);
  EXPECT_FALSE(oneTooMany.connection->Peek());
  EXPECT_FALSE(oneTooMany.isCounted()) << "it is when it comes again";
  PeekedConnectionOfOneRequest gone(4, watcher);
  gone.far.reset();
  EXPECT_TRUE(gone.connection->Peek()) << "its thread sees that it has ended";
  EXPECT_FALSE(gone.isCounted());
}

// As the watcher hands it over for its end.
TEST(ConnectionTest, tellsItsEndFromARequest)
{
  auto const watcher = oneLargeRequest();
  PeekedConnection peer(1, watcher);
  WatchedConnection& watched = *peer.connection;
  EXPECT_EQ(watched.readAvailable(), WatchedConnection::NOTHING);
  peer.receive(SMALL_REQUEST);
  peer.far.reset();
  EXPECT_EQ(watched.readAvailable(), WatchedConnection::READY) << "its last request comes first";
  PeekedConnection silent(2, watcher);
  silent.far.reset();
  WatchedConnection& ended = *silent.connection;
  EXPECT_EQ(ended.readAvailable(), WatchedConnection::ENDED);
  EXPECT_EQ(ended.arrived(), WatchedConnection::ENDED);
}
