#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ServingProcess.h"

#include "ozf/base/SystemError.h"

#include <omniORB4/omniORB.h>
#include <csignal>
#include <poll.h>
#include <sys/wait.h>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

TEST(CorbaProcessTest, saysAddressAndPortWhenThePortIsInUse)
{
  BoundSocket const taken("127.0.0.2", true);
  ProductRoot const root(serviceAt(taken.port(), "127.0.0.2"));
  LogCapture log(1);
  Orb orb(1, "", "ProbeService", 1, 16);
  EXPECT_FALSE(orb.init());
  EXPECT_TRUE(log.has(1, "CorbaProcess::acquire",
                      "Unable to listen on 127.0.0.2:" + std::to_string(taken.port()) +
                          ": Address already in use (98)"))
      << log.text();
  EXPECT_EQ(orb.port(), 0);
  EXPECT_EQ(orb.run(0), -1);
}

TEST(CorbaProcessTest, startsOnceThePortIsFree)
{
  auto taken = std::make_unique<BoundSocket>("127.0.0.1", true);
  ProductRoot const root(serviceAt(taken->port()));
  LogCapture log(1);
  Orb orb(1, "", "ProbeService", 1, 16);
  ASSERT_FALSE(orb.init());
  auto const port = taken->port();
  taken.reset();
  ASSERT_TRUE(orb.init()) << log.text();
  EXPECT_EQ(orb.port(), port);
}

TEST(CorbaProcessTest, saysWhichAddressIsNotThere)
{
  ProductRoot const root(serviceAt(freePort(), "192.0.2.1"));
  LogCapture log(1);
  Orb orb(1, "", "ProbeService", 1, 16);
  EXPECT_FALSE(orb.init());
  EXPECT_NE(log.text().find("Unable to listen on 192.0.2.1:"), std::string::npos) << log.text();
  EXPECT_NE(log.text().find("Cannot assign requested address"), std::string::npos) << log.text();
}

TEST(CorbaProcessTest, refusesAPortThatTheRunningOrbLacks)
{
  ProductRoot const root(serviceAt(freePort()));
  LogCapture log(1);
  Client first;
  Orb second(1, "", "ProbeService", 1, 16);
  EXPECT_FALSE(second.init());
  EXPECT_NE(log.text().find("is up without it"), std::string::npos) << log.text();
}

TEST(CorbaProcessTest, listensOnlyWhereItIsTold)
{
  auto const port = freePort();
  ProductRoot const root(serviceAt(port, "127.0.0.3"));
  Orb orb(1, "", "ProbeService", 1, 16);
  ASSERT_TRUE(orb.init());
  auto const reachable = [port](char const* address)
  {
    int const fd = socket(AF_INET, SOCK_STREAM, 0);
    auto const name = loopback(port, address);
    bool const connected = connect(fd, reinterpret_cast<sockaddr const*>(&name), sizeof name) == 0;
    close(fd);
    return connected;
  };
  EXPECT_TRUE(reachable("127.0.0.3"));
  EXPECT_FALSE(reachable("127.0.0.1"));
}

TEST(CorbaProcessTest, callsGoOverTheWire)
{
  ProductRoot const root(serviceAt(freePort()));
  ServingProcess const server;
  Client client;
  auto const probe = probeOf(client.orb, "Probe");
  CORBA::String_var const answer = probe->echo("name with \xc3\xa4 and \xff");
  EXPECT_STREQ(answer, "name with \xc3\xa4 and \xff");
}

TEST(CorbaProcessTest, answersWithInternalWhenACallFailsAndServesOn)
{
  ProductRoot const root(serviceAt(freePort()));
  ServingProcess const server;
  Client client;
  auto const probe = probeOf(client.orb, "Probe");
  EXPECT_THROW(probe->fail("assertion"), CORBA::INTERNAL);
  EXPECT_THROW(probe->fail("runtime"), CORBA::INTERNAL);
  EXPECT_THROW(probe->fail("other"), CORBA::INTERNAL);
  EXPECT_THROW(probe->fail("memory"), CORBA::NO_MEMORY);
  EXPECT_THROW(probe->fail("corba"), CORBA::NO_PERMISSION);
  CORBA::String_var const answer = probe->echo("still there");
  EXPECT_STREQ(answer, "still there");
}

TEST(CorbaProcessTest, refusesAMessageBeyondTheLimitAndServesOn)
{
  ProductRoot const root(serviceAt(freePort()));
  ServingProcess const server;
  Client client;
  auto const probe = probeOf(client.orb, "Probe");
  OrbTest::Bytes data;
  data.length(3 * 1024 * 1024);
  EXPECT_EQ(probe->size(data), data.length());
  data.length(5 * 1024 * 1024);
  EXPECT_THROW(probe->size(data), CORBA::MARSHAL);
  data.length(1);
  EXPECT_EQ(probe->size(data), 1U);
}

TEST(CorbaProcessTest, anUnknownNameMeetsObjectNotExist)
{
  ProductRoot const root(serviceAt(freePort()));
  ServingProcess const server;
  Client client;
  auto const probe = probeOf(client.orb, "Nobody");
  EXPECT_THROW(CORBA::String_var(probe->echo("x")), CORBA::OBJECT_NOT_EXIST);
}

TEST(CorbaProcessTest, anObjectMayDestroyItselfInACall)
{
  ProductRoot const root(serviceAt(freePort()));
  ServingProcess const server;
  Client client;
  auto const probe = probeOf(client.orb, "Probe");
  EXPECT_TRUE(probe->destroyItself());
  EXPECT_THROW(CORBA::String_var(probe->echo("x")), CORBA::OBJECT_NOT_EXIST);
}

TEST(CorbaProcessTest, givesUpOnAPeerThatNeverAnswers)
{
  BoundSocket const silent("127.0.0.1", true);
  ProductRoot const root(serviceAt(silent.port()));
  Client client;
  client.orb.setRequestTimeout(ACE_Time_Value(0, 300000));
  auto const start = std::chrono::steady_clock::now();
  EXPECT_THROW(CORBA::String_var(probeOf(client.orb, "Probe")->echo("x")), CORBA::TIMEOUT);
  auto const global = std::chrono::steady_clock::now() - start;
  EXPECT_GE(global, std::chrono::milliseconds(250));
  EXPECT_LT(global, std::chrono::seconds(10));
}

TEST(CorbaProcessTest, aReferenceMayHaveATimeoutOfItsOwn)
{
  ProductRoot const root(serviceAt(freePort()));
  ServingProcess const server;
  Client client;
  client.orb.setRequestTimeout(ACE_Time_Value(30));
  OzfHostname host;
  host.setHostname("127.0.0.1");
  CORBA::Object_var object =
      client.orb.resolveObject(host, "ProbeService", "Probe", ACE_Time_Value(0, 200000));
  EXPECT_FALSE(object->_non_existent());
  ASSERT_EQ(kill(server.pid(), SIGSTOP), 0);
  ASSERT_EQ(waitpid(server.pid(), nullptr, WUNTRACED), server.pid()) << "all its threads stand";
  auto const start = std::chrono::steady_clock::now();
  EXPECT_THROW(object->_non_existent(), CORBA::TIMEOUT);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  ASSERT_EQ(kill(server.pid(), SIGCONT), 0);
}

TEST(CorbaProcessTest, theTimeToConnectDoesNotLimitTheCallThatFollows)
{
  ProductRoot const root(serviceAt(freePort()));
  ServingProcess const server;
  Client client;
  client.orb.setRequestTimeout(ACE_Time_Value(30));
  omniORB::setClientConnectTimeout(200);
  EXPECT_NO_THROW(probeOf(client.orb, "Probe")->pause(1000));
}

TEST(CorbaProcessTest, givesUpOnAHostThatDoesNotConnect)
{
  BoundSocket const full("127.0.0.1", true);
  // Nobody accepts: once the backlog is full, further connections hang.
  std::vector<UniqueFd> queued;
  for (int i = 0; i < 16; ++i)
  {
    queued.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    auto const name = loopback(full.port());
    connect(queued.back().get(), reinterpret_cast<sockaddr const*>(&name), sizeof name);
  }
  ProductRoot const root(serviceAt(full.port()));
  Client client;
  client.orb.setRequestTimeout(ACE_Time_Value(1));
  auto const start = std::chrono::steady_clock::now();
  EXPECT_THROW(CORBA::String_var(probeOf(client.orb, "Probe")->echo("x")), CORBA::SystemException);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(CorbaProcessTest, aPortNobodyListensOnFailsAtOnce)
{
  ProductRoot const root(serviceAt(freePort()));
  Client client;
  auto const start = std::chrono::steady_clock::now();
  EXPECT_THROW(CORBA::String_var(probeOf(client.orb, "Probe")->echo("x")), CORBA::TRANSIENT);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(CorbaProcessTest, refusesConnectionsWhenDescriptorsRunShortAndRecovers)
{
  auto const port = freePort();
  ProductRoot const root(serviceAt(port));
  ServingProcess const server(200);
  std::vector<int> flood;
  bool refused = false;
  for (int i = 0; i < 300 && !refused; ++i)
  {
    int const fd = socket(AF_INET, SOCK_STREAM, 0);
    auto const name = loopback(port);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr const*>(&name), sizeof name), 0);
    pollfd wait{fd, POLLIN, 0};
    // The server says nothing before it is asked: what becomes readable was closed.
    refused = poll(&wait, 1, 20) == 1;
    flood.push_back(fd);
  }
  EXPECT_TRUE(refused);
  EXPECT_LT(flood.size(), 200U);
  for (int const fd : flood)
    close(fd);
  Client client;
  EXPECT_TRUE(eventually(
      [&]
      {
        try
        {
          CORBA::String_var const answer = probeOf(client.orb, "Probe")->echo("x");
          return true;
        }
        catch (CORBA::SystemException const&)
        {
          return false;
        }
      }));
}
