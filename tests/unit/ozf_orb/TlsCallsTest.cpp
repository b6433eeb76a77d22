// Calls between processes of which both prove who they are.

#include "ozf/orb/Peer.h"
#include "ozf/tls/CurrentTls.h"
#include "tests/support/Certificates.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ServingProcess.h"

#include <future>
#include <vector>

using namespace Quillon::Tessarine::Ozf;
using tqtest::CertificateAuthority;
using tqtest::tlsLines;
using tqtest::Wish;

namespace
{

std::string answerOf(OrbTest::Probe_ptr probe)
{
  try
  {
    CORBA::String_var const answer = probe->echo("x");
    return answer.in();
  }
  catch (CORBA::SystemException const& exception)
  {
    return exception._name();
  }
}

Wish expired()
{
  Wish wish;
  wish.begin = -7200;
  wish.end = -3600;
  return wish;
}

// A service and a client with configurations of their own.
class TlsCallsTest : public testing::Test
{
protected:
  TlsCallsTest()
  {
    m_authority.writeTo(m_files / "ca.pem");
    m_authority.issue(m_files.path(), "server");
    m_authority.issue(m_files.path(), "client");
  }

  // Empty lines: without TLS.
  void serve(std::string const& lines)
  {
    m_serverRoot.emplace("CLIENT_NAME = localhost\n" + serviceAt(m_port) + lines);
    m_server = std::make_unique<ServingProcess>();
  }
  void call(std::string const& lines)
  {
    m_clientRoot.emplace("CLIENT_NAME = localhost\n" + serviceAt(m_port) + lines);
    m_client = std::make_unique<Client>();
  }
  std::string answer() { return answerOf(probeOf(m_client->orb, "Probe")); }
  // A call, which ends before the service gets it.
  void expectRefusal(std::string const& line)
  {
    serve(lines("server"));
    LogCapture log(1);
    call(lines("client"));
    EXPECT_EQ(answer(), "TRANSIENT");
    EXPECT_TRUE(log.has(1, "proveServer",
                        "Ended the connection to 127.0.0.1 before any call: its certificate "
                        "(localhost, 127.0.0.1) is refused: " +
                            line))
        << log.text();
  }
  std::string lines(char const* name, char const* mode = "only")
  {
    return tlsLines(mode, m_files.path(), name);
  }

  TempDir m_files;
  CertificateAuthority m_authority;
  unsigned short const m_port = freePort();
  std::optional<ProductRoot> m_serverRoot;
  std::optional<ProductRoot> m_clientRoot;
  std::unique_ptr<ServingProcess> m_server;
  std::unique_ptr<Client> m_client;
};

} // namespace

TEST_F(TlsCallsTest, hostsOfOneAuthorityCallEachOther)
{
  serve(lines("server"));
  call(lines("client"));
  auto const probe = probeOf(m_client->orb, "Probe");
  EXPECT_EQ(answerOf(probe), "x");
  EXPECT_EQ(answerOf(probe), "x");
}

TEST_F(TlsCallsTest, anAnswerOrRequestOfAnySizeComesThrough)
{
  serve(lines("server"));
  call(lines("client"));
  auto const probe = probeOf(m_client->orb, "Probe");
  for (CORBA::ULong const size : {1U, 8000U, 8192U, 16384U, 100000U, 3000000U})
  {
    OrbTest::Bytes data;
    data.length(size);
    EXPECT_EQ(probe->size(data), size);
    std::string const text(size, 'a');
    CORBA::String_var const echo = probe->echo(text.c_str());
    EXPECT_EQ(text, echo.in());
  }
}

TEST_F(TlsCallsTest, manyThreadsCallAtATime)
{
  serve(lines("server"));
  call(lines("client"));
  auto const probe = probeOf(m_client->orb, "Probe");
  std::vector<std::future<int>> calls;
  for (int i = 0; i < 8; ++i)
    calls.push_back(std::async(std::launch::async,
                               [&]
                               {
                                 int answered = 0;
                                 for (int call = 0; call < 50; ++call)
                                   answered += answerOf(probe) == "x" ? 1 : 0;
                                 return answered;
                               }));
  for (auto& each : calls)
    EXPECT_EQ(each.get(), 50);
}

TEST_F(TlsCallsTest, aPlainPeerIsRefusedByBothSides)
{
  serve(lines("server"));
  call("");
  EXPECT_NE(answer(), "x");
  m_client.reset();
  m_server.reset();
  serve("");
  LogCapture log(1);
  call(lines("client"));
  EXPECT_EQ(answer(), "TRANSIENT");
  EXPECT_TRUE(log.has(1, "proveServer",
                      "Ended the connection to 127.0.0.1 before any call: it does not speak TLS"))
      << log.text();
}

TEST_F(TlsCallsTest, bothTakesEveryKindOfPeer)
{
  serve(lines("server", "both"));
  for (std::string const& mode : {lines("client"), lines("client", "both"), std::string()})
  {
    call(mode);
    EXPECT_EQ(answer(), "x") << mode;
    m_client.reset();
  }
  m_server.reset();
  serve("");
  LogCapture log(1);
  call(lines("client", "both"));
  EXPECT_EQ(answer(), "x");
  EXPECT_TRUE(log.has(1, "proveServer",
                      "127.0.0.1 does not speak TLS: called without, as TLS = both allows"))
      << log.text();
}

TEST_F(TlsCallsTest, theCertificateOfAnotherHostIsRefusedWithBothNames)
{
  Wish wish;
  wish.names = "DNS:backup2";
  m_authority.issue(m_files.path(), "server", wish);
  serve(lines("server"));
  LogCapture log(1);
  call(lines("client") + "HOST_ADDRESS.backup1 = 127.0.0.1\n");
  OzfHostname host;
  host.setHostname("backup1");
  CORBA::Object_var object = m_client->orb.resolveObject(host, "ProbeService", "Probe", {});
  OrbTest::Probe_var probe = OrbTest::Probe::_unchecked_narrow(object);
  EXPECT_EQ(answerOf(probe), "TRANSIENT");
  EXPECT_TRUE(log.has(1, "proveServer",
                      "Ended the connection to 127.0.0.1 before any call: the certificate of "
                      "127.0.0.1 (backup1) is for backup2"))
      << log.text();
}

TEST_F(TlsCallsTest, aHostIsKnownByTheNameThatItsAddressIsGiven)
{
  Wish wish;
  wish.names = "DNS:backup1";
  m_authority.issue(m_files.path(), "server", wish);
  serve(lines("server"));
  call(lines("client") + "HOST_ADDRESS.backup1 = 127.0.0.1\n");
  EXPECT_EQ(answer(), "x");
}

TEST_F(TlsCallsTest, aServerOfAnotherAuthorityIsRefused)
{
  CertificateAuthority other("Another authority");
  other.issue(m_files.path(), "server");
  expectRefusal("it is of another authority than those of TLS_CA");
}

TEST_F(TlsCallsTest, anExpiredServerIsRefused)
{
  m_authority.issue(m_files.path(), "server", expired());
  expectRefusal("it has expired");
}

// The client learns it when it has sent its request.
TEST_F(TlsCallsTest, aClientThatIsRefusedIsToldWhy)
{
  m_authority.issue(m_files.path(), "client", expired());
  serve(lines("server"));
  LogCapture log(1);
  call(lines("client"));
  EXPECT_NE(answer(), "x");
  EXPECT_NE(log.text().find("it refuses this host's certificate: it has expired"),
            std::string::npos)
      << log.text();
}

TEST_F(TlsCallsTest, aConnectionThatThePeerClosedWhileIdleIsLeft)
{
  serve(lines("server"));
  ServingProcess second(0, ServingProcess::LATER);
  call(lines("client"));
  auto const probe = probeOf(m_client->orb, "Probe");
  ASSERT_EQ(answerOf(probe), "x");
  m_server.reset();
  second.begin();
  EXPECT_EQ(answerOf(probe), "x");
}

TEST_F(TlsCallsTest, aRenewedCertificateIsTakenForNewConnectionsAndCallsInProgressGoOn)
{
  CertificateAuthority other("The next authority");
  serve(lines("server"));
  call(lines("client"));
  auto const probe = probeOf(m_client->orb, "Probe");
  ASSERT_EQ(answerOf(probe), "x");
  auto pausing = std::async(std::launch::async, [&] { probe->pause(1000); });
  // This side alone believes the next authority from now on.
  other.writeTo(m_files / "ca.pem");
  std::string error;
  ASSERT_TRUE(setUpTls(error)) << error;
  EXPECT_NO_THROW(pausing.get());
  EXPECT_EQ(answerOf(probe), "x") << "the connection stands";
  m_client.reset();
  m_client = std::make_unique<Client>();
  EXPECT_EQ(answer(), "TRANSIENT");
}

TEST_F(TlsCallsTest, filesThatAreNotInOrderKeepTheOrbDownAndAReloadAsItWas)
{
  call(lines("client"));
  auto const before = currentTls();
  writeText(m_files / "client.key", "nonsense");
  std::string error;
  EXPECT_FALSE(setUpTls(error));
  EXPECT_NE(error.find("TLS_KEY " + (m_files / "client.key") + " is not in order: "),
            std::string::npos)
      << error;
  EXPECT_EQ(currentTls(), before);
  m_client.reset();
  LogCapture log(1);
  Orb orb(1, "", "client", 1, 16);
  EXPECT_FALSE(orb.init());
  EXPECT_NE(log.text().find(error), std::string::npos) << log.text();
}
