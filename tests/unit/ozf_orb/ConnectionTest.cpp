#include "ozf/orb/Connection.h"

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
  PeekedConnection(ConnectionNumber number, std::shared_ptr<ConnectionWatcher> const& watcher)
  {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    near.reset(fds[0]);
    far.reset(fds[1]);
    std::list<Peer> peer(1);
    peer.front().connection = number;
    peer.front().address = "192.0.2.1";
    connection = new Connection(new SilentConnection, fds[0], nullptr, std::move(peer), watcher);
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

} // namespace

TEST(ConnectionTest, itsThreadGoesOnWithTheRequestsThatItMay)
{
  constexpr std::size_t SMALL = 24;
  constexpr std::size_t LARGE = 100'000;
  WatchLimits limits;
  limits.largeRequests = 1;
  auto const watcher = std::make_shared<ConnectionWatcher>(limits);
  PeekedConnection small(1, watcher);
  PeekedConnection large(2, watcher);
  PeekedConnection oneTooMany(3, watcher);
  EXPECT_FALSE(small.connection->Peek()) << "nothing has come";
  small.receive(SMALL);
  EXPECT_TRUE(small.connection->Peek());
  large.receive(LARGE);
  EXPECT_TRUE(large.connection->Peek());
  oneTooMany.receive(LARGE);
  EXPECT_FALSE(oneTooMany.connection->Peek());
  watcher->largeIsRead(*large.connection);
  EXPECT_TRUE(oneTooMany.connection->Peek());
}
