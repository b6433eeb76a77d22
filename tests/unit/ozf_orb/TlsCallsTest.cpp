// Calls between processes of which both prove who they are.

#include "ozf/base/SystemError.h"
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
  void serve(std::string const& lines, char const* address = "127.0.0.1")
  {
    m_serverRoot.emplace("CLIENT_NAME = localhost\n" + serviceAt(m_port, address) + lines);
    m_server = std::make_unique<ServingProcess>();
  }
  void serveFromNowOn(std::string const& lines)
  {
    m_serverRoot->rewrite("CLIENT_NAME = localhost\n" + serviceAt(m_port) + lines);
    m_server->reload();
  }
  void call(std::string const& lines)
  {
    m_clientRoot.emplace("CLIENT_NAME = localhost\n" + serviceAt(m_port) + lines);
    m_client = std::make_unique<Client>();
  }
  OrbTest::Probe_var at(char const* name)
  {
    OzfHostname host;
    host.setHostname(name);
    CORBA::Object_var object = m_client->orb.resolveObject(host, "ProbeService", "Probe", {});
    return OrbTest::Probe::_unchecked_narrow(object);
  }
  // A reference as peers send them, with an address of their choice.
  static OrbTest::Probe_ptr fromPeer(std::string const& address, unsigned short port)
  {
    int none = 0;
    CORBA::ORB_var const orb = CORBA::ORB_init(none, nullptr, "omniORB4"); // the one there is
    std::string const place = "corbaloc:iiop:1.2@" + address + ":" + std::to_string(port);
    CORBA::Object_var object = orb->string_to_object((place + "/Probe").c_str());
    CORBA::String_var const text = orb->object_to_string(object);
    object = orb->string_to_object(text);
    return OrbTest::Probe::_unchecked_narrow(object);
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
  EXPECT_EQ(answerOf(at("backup1")), "TRANSIENT");
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
  m_server->awaitPause();
  // This side alone believes the next authority from now on.
  other.writeTo(m_files / "ca.pem");
  std::string error;
  ASSERT_TRUE(setUpTls(error)) << error;
  EXPECT_NO_THROW(pausing.get());
  // The host that was believed has to prove itself again for the next call.
  EXPECT_EQ(answerOf(probe), "TRANSIENT");
  m_authority.writeTo(m_files / "ca.pem");
  ASSERT_TRUE(setUpTls(error)) << error;
  EXPECT_EQ(answerOf(probe), "x");
}

TEST_F(TlsCallsTest, aCallerThatStaysConnectedIsJudgedByWhatHoldsNow)
{
  serve(lines("server"));
  call(lines("client"));
  auto const probe = probeOf(m_client->orb, "Probe");
  ASSERT_EQ(answerOf(probe), "x");
  // The same authority, and a certificate that was renewed: no call is refused.
  m_authority.issue(m_files.path(), "server");
  serveFromNowOn(lines("server"));
  EXPECT_EQ(answerOf(probe), "x");
  // The service alone believes the next authority, while a call is in progress.
  auto pausing = std::async(std::launch::async, [&] { probe->pause(500); });
  m_server->awaitPause();
  CertificateAuthority other("The next authority");
  other.writeTo(m_files / "ca.pem");
  serveFromNowOn(lines("server"));
  EXPECT_NO_THROW(pausing.get());
  EXPECT_NE(answerOf(probe), "x");
}

TEST_F(TlsCallsTest, aCallerWithoutTlsIsEndedWhenOnlyTlsIsTakenFromNowOn)
{
  serve(lines("server", "both"));
  call("");
  auto const probe = probeOf(m_client->orb, "Probe");
  ASSERT_EQ(answerOf(probe), "x");
  serveFromNowOn(lines("server", "only"));
  EXPECT_NE(answerOf(probe), "x");
  serveFromNowOn(lines("server", "both"));
  EXPECT_EQ(answerOf(probe), "x");
}

TEST_F(TlsCallsTest, aCallerWhoseCertificateEndsWhileItIsConnectedIsRefusedFromThenOn)
{
  Wish wish;
  wish.end = 6;
  serve(lines("server"));
  m_authority.issue(m_files.path(), "client", wish);
  call(lines("client"));
  auto const probe = probeOf(m_client->orb, "Probe");
  ASSERT_EQ(answerOf(probe), "x");
  auto const begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(eventually([&] { return answerOf(probe) != "x"; }));
  // An idle connection would be closed later by itself.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

// What was opened before TLS was turned on is no way round it.
TEST_F(TlsCallsTest, aCallAfterTlsWasTurnedOnIsMadeWithTls)
{
  serve("");
  call("");
  auto const probe = probeOf(m_client->orb, "Probe");
  ASSERT_EQ(answerOf(probe), "x");
  m_clientRoot->rewrite("CLIENT_NAME = localhost\n" + serviceAt(m_port) + lines("client"));
  ASSERT_TRUE(reloadConfiguration());
  std::string error;
  ASSERT_TRUE(setUpTls(error)) << error;
  EXPECT_EQ(answerOf(probe), "TRANSIENT");
}

TEST_F(TlsCallsTest, aReferenceFromAPeerIsFollowedToTheHostThatItNamesAlone)
{
  serve(lines("server") + "ORB_BIND = 127.0.0.2\n");
  call(lines("client"));
  OrbTest::Probe_var const meant = fromPeer("127.0.0.1", m_port);
  EXPECT_EQ(answerOf(meant), "x");
  // The same service at an address that is not its own.
  LogCapture log(1);
  OrbTest::Probe_var const other = fromPeer("127.0.0.2", m_port);
  EXPECT_EQ(answerOf(other), "TRANSIENT");
  EXPECT_TRUE(log.has(1, "proveServer",
                      "Ended the connection to 127.0.0.2 before any call: the certificate of "
                      "127.0.0.2 is for localhost, 127.0.0.1"))
      << log.text();
}

TEST_F(TlsCallsTest, aReferenceFromAPeerLeadsToNoCallWithoutTls)
{
  call(lines("client"));
  BoundSocket const plain("127.0.0.1", true);
  OrbTest::Probe_var const probe = fromPeer("127.0.0.1", plain.port());
  auto answered = std::async(std::launch::async, [&] { return answerOf(probe); });
  UniqueFd const caller(plain.accept(std::chrono::seconds(20)));
  unsigned char first = 0;
  ASSERT_EQ(recv(caller.get(), &first, 1, 0), 1);
  EXPECT_EQ(first, 0x16) << "a record of a handshake";
  ASSERT_EQ(send(caller.get(), "GIOP\1\0\0\1\0\0\0\0", 12, MSG_NOSIGNAL), 12);
  EXPECT_EQ(answered.get(), "TRANSIENT");
}

TEST_F(TlsCallsTest, aHostThatDoesNotShakeHandsCostsThreeSeconds)
{
  call(lines("client"));
  BoundSocket const silent("127.0.0.1", true);
  OrbTest::Probe_var const probe = fromPeer("127.0.0.1", silent.port());
  auto const begin = std::chrono::steady_clock::now();
  LogCapture log(1);
  EXPECT_EQ(answerOf(probe), "TRANSIENT");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));
  EXPECT_TRUE(log.has(1, "proveServer",
                      "Ended the connection to 127.0.0.1 before any call: it does not go on with "
                      "the handshake"))
      << log.text();
}

TEST_F(TlsCallsTest, aHostOfVersion6IsProvenByItsAddressAndByTheNameThatIsGivenIt)
{
  for (char const* const names : {"IP:::1", "DNS:backup6"})
  {
    Wish wish;
    wish.names = names;
    m_authority.issue(m_files.path(), "server", wish);
    serve(lines("server"), "::1");
    call(lines("client") + "HOST_ADDRESS.backup6 = ::1\n");
    EXPECT_EQ(answerOf(at("backup6")), "x") << names;
    m_client.reset();
    m_server.reset();
  }
  Wish wish;
  wish.names = "IP:::2";
  m_authority.issue(m_files.path(), "server", wish);
  serve(lines("server"), "::1");
  LogCapture log(1);
  call(lines("client") + "HOST_ADDRESS.backup6 = ::1\n");
  EXPECT_EQ(answerOf(at("backup6")), "TRANSIENT");
  EXPECT_NE(log.text().find("the certificate of ::1 (backup6) is for ::2"), std::string::npos)
      << log.text();
}

// The name that was meant is looked for among all that the address is given.
TEST_F(TlsCallsTest, aHostWithSeveralNamesIsProvenByAnyOfThem)
{
  Wish wish;
  wish.names = "DNS:backup1.example.net";
  m_authority.issue(m_files.path(), "server", wish);
  serve(lines("server"));
  call(lines("client") +
       "HOST_ADDRESS.backup1 = 127.0.0.1\nHOST_ADDRESS.backup1.example.net = 127.0.0.1\n"
       "HOST_ADDRESS.backup2 = 127.0.0.2\n");
  EXPECT_EQ(answerOf(at("backup1")), "x");
}

TEST_F(TlsCallsTest, aHostIsCalledByTheFirstOfItsAddressesThatCanBeConnectedTo)
{
  serve("");
  call("HOST_ADDRESS.big = 127.0.0.2, ::1 fe80::1%lo, 127.0.0.1\nHOST_ADDRESS.none = fe80::1%lo\n");
  EXPECT_EQ(answerOf(at("big")), "x");
  EXPECT_THROW(at("none"), CORBA::BAD_PARAM) << "nothing else than an address can be called";
}

// The same port of two machines, which have one address each in two networks.
TEST_F(TlsCallsTest, anAddressAtWhichAnotherHostProvesItselfIsPassedOver)
{
  m_authority.issue(m_files.path(), "other", tqtest::wishFor("backup2"));
  m_authority.issue(m_files.path(), "server", tqtest::wishFor("backup1"));
  serve(lines("other"), "127.0.0.2");
  ProductRoot const root("CLIENT_NAME = localhost\n" + serviceAt(m_port) + lines("server"));
  ServingProcess const meant;
  LogCapture log(1);
  call(lines("client") + "HOST_ADDRESS.backup1 = 127.0.0.2, 127.0.0.1\n");
  EXPECT_EQ(answerOf(at("backup1")), "x") << log.text();
  EXPECT_TRUE(log.has(1, "proveServer",
                      "Ended the connection to 127.0.0.2 before any call: the certificate of "
                      "127.0.0.2 (backup1) is for backup2"))
      << log.text();
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
