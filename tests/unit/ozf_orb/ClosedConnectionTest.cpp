#include "ozf/base/SystemError.h"
#include "tests/unit/ozf_orb/ServingProcess.h"

#include <future>
#include <netinet/tcp.h>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string echoed(OrbTest::Probe_ptr probe)
{
  try
  {
    CORBA::String_var const answer = probe->echo("x");
    return answer.in();
  }
  catch (CORBA::SystemException const& exception)
  {
    return corbaExceptionText(exception);
  }
}

// The states of this process's connections to a port of 127.0.0.1.
std::vector<int> statesOfConnections(unsigned short port)
{
  std::vector<int> states;
  for (int fd = 0; fd < 1024; ++fd)
  {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
        peer.sin_family != AF_INET || ntohs(peer.sin_port) != port)
      continue;
    tcp_info info{};
    length = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0)
      states.push_back(info.tcpi_state);
  }
  return states;
}

// Two services on one port, of which the second begins when the first has gone.
class ClosedConnectionTest : public testing::Test
{
protected:
  void replaceService()
  {
    m_first.reset();
    m_second.begin();
  }

  unsigned short const m_port = freePort();
  ProductRoot const m_root{serviceAt(m_port)};
  std::unique_ptr<ServingProcess> m_first = std::make_unique<ServingProcess>();
  ServingProcess m_second{0, ServingProcess::LATER};
  Client m_client;
};

} // namespace

TEST_F(ClosedConnectionTest, aCallOnAConnectionThatThePeerClosedGoesOnAnother)
{
  auto const probe = probeOf(m_client.orb, "Probe");
  ASSERT_EQ(echoed(probe), "x");
  replaceService();
  EXPECT_EQ(echoed(probe), "x");
}

TEST_F(ClosedConnectionTest, soDoesTheCheckOfAReferencesType)
{
  ASSERT_EQ(echoed(probeOf(m_client.orb, "Probe")), "x");
  replaceService();
  OzfHostname host;
  host.setHostname("127.0.0.1");
  CORBA::Object_var object = m_client.orb.resolveObject(host, "ProbeService", "Probe", {});
  OrbTest::Probe_var probe;
  ASSERT_NO_THROW(probe = OrbTest::Probe::_narrow(object));
  EXPECT_EQ(echoed(probe), "x");
}

TEST_F(ClosedConnectionTest, anyNumberOfClosedConnectionsIsLeftInOneCall)
{
  auto const probe = probeOf(m_client.orb, "Probe");
  std::vector<std::future<void>> calls;
  for (int i = 0; i < 20; ++i)
    calls.push_back(std::async(std::launch::async, [&] { probe->pause(500); }));
  for (auto& call : calls)
    ASSERT_NO_THROW(call.get());
  ASSERT_GT(statesOfConnections(m_port).size(), 1U);
  replaceService();
  EXPECT_EQ(echoed(probe), "x");
  EXPECT_EQ(statesOfConnections(m_port), std::vector<int>{TCP_ESTABLISHED});
}

TEST_F(ClosedConnectionTest, aServiceThatStaysAwayFailsTheCall)
{
  auto const probe = probeOf(m_client.orb, "Probe");
  ASSERT_EQ(echoed(probe), "x");
  m_first.reset();
  EXPECT_THROW(CORBA::String_var(probe->echo("x")), CORBA::TRANSIENT);
}

TEST_F(ClosedConnectionTest, aCallThatThePeerMayHaveDoneIsNotSentAgain)
{
  auto const probe = probeOf(m_client.orb, "Probe");
  ASSERT_EQ(echoed(probe), "x");
  auto call = std::async(std::launch::async, [&] { probe->pause(1000); });
  // The call is in the servant, or as good as.
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
  m_first->kill();
  try
  {
    call.get();
    ADD_FAILURE() << "answered";
  }
  catch (CORBA::COMM_FAILURE const& exception)
  {
    EXPECT_EQ(exception.completed(), CORBA::COMPLETED_MAYBE);
  }
}

// Waits for the ORB to count to fifteen.
TEST_F(ClosedConnectionTest, whoCallsLetsGoOfAnIdleConnectionFirst)
{
  auto const probe = probeOf(m_client.orb, "Probe");
  ASSERT_EQ(echoed(probe), "x");
  ASSERT_EQ(statesOfConnections(m_port), std::vector<int>{TCP_ESTABLISHED});
  bool closedByServer = false;
  EXPECT_TRUE(eventually(
      [&]
      {
        auto const states = statesOfConnections(m_port);
        closedByServer = closedByServer || states == std::vector<int>{TCP_CLOSE_WAIT};
        return states.empty() || closedByServer;
      }));
  EXPECT_FALSE(closedByServer);
  EXPECT_EQ(echoed(probe), "x");
}

TEST(RefusedConnectionTest, aPeerThatClosesEveryNewConnectionFailsTheCall)
{
  BoundSocket const refusing("127.0.0.1", true);
  ProductRoot const root(serviceAt(refusing.port()));
  std::atomic<bool> ended{false};
  std::thread closer(
      [&]
      {
        while (!ended)
          UniqueFd const connection(refusing.accept(std::chrono::milliseconds(20)));
      });
  {
    Client client;
    auto const probe = probeOf(client.orb, "Probe");
    EXPECT_THROW(CORBA::String_var(probe->echo("x")), CORBA::SystemException);
  }
  ended = true;
  closer.join();
}
