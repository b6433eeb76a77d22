#include "ozf/orb/ListenCheck.h"

#include "ozf/base/SystemError.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Strings = std::vector<std::string>;

// A socket on a port of 127.0.0.1 that the system picked.
class Listener
{
public:
  Listener() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(m_fd.get(), generic, size) != 0 || listen(m_fd.get(), 1) != 0 ||
        getsockname(m_fd.get(), generic, &size) != 0)
      ADD_FAILURE() << "cannot listen on 127.0.0.1";
    m_port = ntohs(address.sin_port);
  }
  unsigned short port() const { return m_port; }

private:
  UniqueFd m_fd;
  unsigned short m_port = 0;
};

unsigned short portJustClosed() { return Listener().port(); }

} // namespace

TEST(ListenCheckTest, EndPointsOfAllAddressesNameNone)
{
  EXPECT_EQ(makeEndPoints({}, 27511), Strings{"giop:watched::27511"});
}

TEST(ListenCheckTest, EveryAddressGetsAnEndPointInItsOrder)
{
  EXPECT_EQ(makeEndPoints({"10.1.2.3", "127.0.0.1"}, 27511),
            (Strings{"giop:watched:10.1.2.3:27511", "giop:watched:127.0.0.1:27511"}));
}

TEST(ListenCheckTest, AddressesWithColonsAreBracketed)
{
  EXPECT_EQ(makeEndPoints({"::1"}, 27511), Strings{"giop:watched:[::1]:27511"});
}

TEST(ListenCheckTest, PortZeroLeavesTheChoiceToTheSystem)
{
  EXPECT_EQ(makeEndPoints({"127.0.0.1"}, 0), Strings{"giop:watched:127.0.0.1:"});
  EXPECT_EQ(makeEndPoints({}, 0), Strings{"giop:watched::"});
}

TEST(ListenCheckTest, AFreePortCanBeListenedOnAndStaysFree)
{
  // The system may give a port away again, to a test that runs beside this one.
  std::string error;
  bool free = false;
  for (int i = 0; i < 5 && !free; ++i)
  {
    unsigned short const port = portJustClosed();
    error = "untouched";
    free = canListen({"127.0.0.1"}, port, error) && canListen({"127.0.0.1"}, port, error) &&
           canListen({}, port, error);
  }
  EXPECT_TRUE(free) << error;
  EXPECT_EQ(error, "untouched");
}

TEST(ListenCheckTest, APortInUseIsNamedWithItsAddress)
{
  Listener const other;
  std::string const port = std::to_string(other.port());
  std::string error;
  EXPECT_FALSE(canListen({"127.0.0.1"}, other.port(), error));
  EXPECT_EQ(error, "Unable to listen on 127.0.0.1:" + port + ": Address already in use (98)");
  EXPECT_FALSE(canListen({}, other.port(), error)) << "all addresses include the one in use";
  EXPECT_EQ(error, "Unable to listen on 0.0.0.0:" + port + ": Address already in use (98)");
}

TEST(ListenCheckTest, TheFirstAddressThatFailsIsTold)
{
  Listener const other;
  std::string error;
  // No test beside this one uses the first address, or a port of it.
  EXPECT_FALSE(canListen({"127.0.99.1", "127.0.0.1", "bad"}, other.port(), error));
  EXPECT_EQ(error, "Unable to listen on 127.0.0.1:" + std::to_string(other.port()) +
                       ": Address already in use (98)");
}

TEST(ListenCheckTest, AnAddressOfAnotherHostIsNotThere)
{
  std::string error;
  EXPECT_FALSE(canListen({"192.0.2.1"}, 27511, error));
  EXPECT_EQ(error, "Unable to listen on 192.0.2.1:27511: Cannot assign requested address (99)");
  EXPECT_FALSE(canListen({"2001:db8::1"}, 27511, error));
  EXPECT_EQ(error.rfind("Unable to listen on [2001:db8::1]:27511: ", 0), 0U) << error;
}

TEST(ListenCheckTest, WhatIsNoAddressIsRefused)
{
  std::string error;
  for (std::string const text : {"localhost", "", "127.0.0.1.5", "[::1]"})
  {
    EXPECT_FALSE(canListen({text}, 27511, error)) << text;
    EXPECT_NE(error.find("Invalid argument (22)"), std::string::npos) << error;
  }
}
