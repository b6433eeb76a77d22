// Peers that do not come to a handshake's end, beside one that does.

#include "ozf/base/SystemError.h"
#include "ozf/orb/Liveness.h"
#include "ozf/tls/TlsChannel.h"
#include "tests/support/Certificates.h"
#include "tests/unit/ozf_orb/ServingProcess.h"

#include <openssl/ssl.h>
#include <sys/wait.h>

#include <csignal>
#include <thread>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Steady = std::chrono::steady_clock;

// A service that takes TLS alone.
class HandshakesTest : public testing::Test
{
protected:
  HandshakesTest()
  {
    m_authority.writeTo(m_files / "ca.pem");
    m_authority.issue(m_files.path(), "host");
    m_root.emplace("CLIENT_NAME = localhost\n" + serviceAt(m_port) +
                   tqtest::tlsLines("only", m_files.path(), "host"));
    m_server = std::make_unique<ServingProcess>();
  }

  // Connected to the service, from a loopback address.
  UniqueFd connectFrom(char const* address) const
  {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in const own = loopback(0, address);
    sockaddr_in const there = loopback(m_port);
    if (bind(fd.get(), reinterpret_cast<sockaddr const*>(&own), sizeof own) != 0 ||
        connect(fd.get(), reinterpret_cast<sockaddr const*>(&there), sizeof there) != 0)
      ADD_FAILURE() << errorText(errno);
    return fd;
  }

  static bool isEnded(UniqueFd const& fd, int milliseconds)
  {
    pollfd wait{fd.get(), POLLIN | POLLRDHUP, 0};
    return poll(&wait, 1, milliseconds) == 1;
  }

  std::shared_ptr<TlsContext const> context() const
  {
    TlsSettings settings;
    std::string error;
    EXPECT_TRUE(settings.read(*getConfiguration(), error)) << error;
    auto const made = TlsContext::make(settings, error);
    EXPECT_TRUE(made) << error;
    return made;
  }

  TempDir m_files;
  tqtest::CertificateAuthority m_authority;
  unsigned short const m_port = freePort();
  std::optional<ProductRoot> m_root;
  std::unique_ptr<ServingProcess> m_server;
};

} // namespace

TEST_F(HandshakesTest, aSilentPeerIsEndedAfterThreeSeconds)
{
  auto const begin = Steady::now();
  UniqueFd const silent = connectFrom("127.0.0.1");
  EXPECT_TRUE(isEnded(silent, 20000));
  auto const took = Steady::now() - begin;
  EXPECT_GE(took, std::chrono::milliseconds(2900));
  EXPECT_LT(took, std::chrono::seconds(8));
}

TEST_F(HandshakesTest, aPeerThatStopsInTheMiddleIsEndedAsWell)
{
  UniqueFd const stalled = connectFrom("127.0.0.1");
  unsigned char const begun[] = {0x16, 3, 1, 2, 0, 1};
  ASSERT_EQ(send(stalled.get(), begun, sizeof begun, MSG_NOSIGNAL),
            static_cast<ssize_t>(sizeof begun));
  EXPECT_TRUE(isEnded(stalled, 20000));
}

// What it says that it will send takes memory at once.
TEST_F(HandshakesTest, aPeerThatBeginsAnEndlessMessageIsEndedAtOnce)
{
  UniqueFd const endless = connectFrom("127.0.0.1");
  unsigned char const begun[] = {0x16, 3, 1, 0, 4, 1, 1, 0xff, 0xb0};
  ASSERT_EQ(send(endless.get(), begun, sizeof begun, MSG_NOSIGNAL),
            static_cast<ssize_t>(sizeof begun));
  EXPECT_TRUE(isEnded(endless, 2500)); // before its time for a handshake is over
}

TEST_F(HandshakesTest, aThousandPeersThatNeverShakeHandsKeepNobodyWaiting)
{
  std::vector<UniqueFd> silent;
  for (int i = 0; i < 1000; ++i)
    silent.push_back(connectFrom(i % 2 == 0 ? "127.0.0.1" : "127.0.77.2"));
  Client client;
  for (int call = 0; call < 5; ++call)
  {
    auto const begin = Steady::now();
    CORBA::String_var const answer = probeOf(client.orb, "Probe")->echo("x");
    EXPECT_STREQ(answer.in(), "x");
    EXPECT_LT(Steady::now() - begin,
              std::chrono::milliseconds(2500)); // not the time of a handshake
  }
  EXPECT_FALSE(isEnded(silent.back(), 0)) << "they were gone before";
}

// A number of one address is ended for the next, of another address for none.
TEST_F(HandshakesTest, anAddressWithTooManyLosesItsOldest)
{
  UniqueFd const other = connectFrom("127.0.77.2");
  UniqueFd const oldest = connectFrom("127.0.0.1");
  std::vector<UniqueFd> silent;
  for (int i = 0; i < 512; ++i)
    silent.push_back(connectFrom("127.0.0.1"));
  EXPECT_TRUE(isEnded(oldest, 2000));
  EXPECT_FALSE(isEnded(silent.back(), 0));
  EXPECT_FALSE(isEnded(other, 0));
}

// Half of the descriptors may be connections of one address.
TEST_F(HandshakesTest, whoNeverShakesHandsLeavesDescriptorsToTheOthers)
{
  m_server.reset();
  ServingProcess const few(256);
  std::vector<UniqueFd> silent;
  for (int i = 0; i < 300; ++i)
    silent.push_back(connectFrom(i % 2 == 0 ? "127.0.77.2" : "127.0.77.3"));
  Client client;
  CORBA::String_var const answer = probeOf(client.orb, "Probe")->echo("x");
  EXPECT_STREQ(answer.in(), "x");
}

// As of a herd, of which most wait for longer than a handshake may take.
TEST_F(HandshakesTest, whoHasSpokenIsNotCutOffBecauseTheServiceIsLate)
{
  struct Host
  {
    UniqueFd socket;
    std::unique_ptr<TlsChannel> channel;
  };
  std::vector<Host> hosts;
  for (int i = 0; i < 10; ++i)
    hosts.push_back({connectFrom("127.0.77.2"), nullptr});
  Client client;
  CORBA::String_var const answer = probeOf(client.orb, "Probe")->echo("x"); // all are taken in
  auto const begin = Steady::now();
  ASSERT_EQ(kill(m_server->pid(), SIGSTOP), 0);
  ASSERT_EQ(waitpid(m_server->pid(), nullptr, WUNTRACED), m_server->pid())
      << "all its threads stand";
  auto const proof = context();
  for (Host& host : hosts)
  {
    host.channel = std::make_unique<TlsChannel>(proof, TlsChannel::CLIENT, host.socket.get());
    EXPECT_EQ(host.channel->handshake(), TlsChannel::Progress::READ);
  }
  std::this_thread::sleep_until(begin + std::chrono::milliseconds(3500));
  ASSERT_EQ(kill(m_server->pid(), SIGCONT), 0);
  std::string const question("GIOP\1\0\0\3\0\0\0\x0d\0\0\0\1\0\0\0\5Probe", 25);
  for (Host& host : hosts)
  {
    auto const deadline = Steady::now() + std::chrono::seconds(20);
    char byte = 0;
    EXPECT_TRUE(host.channel->handshake(deadline) == TlsChannel::Progress::DONE &&
                host.channel->send(question.data(), question.size(), deadline) > 0 &&
                host.channel->receive(&byte, 1, deadline) == 1)
        << host.channel->reason();
  }
}

TEST_F(HandshakesTest, whatFollowsTheHandshakeInOneRecordIsServed)
{
  UniqueFd const socket = connectFrom("127.0.0.1");
  TlsChannel channel(context(), TlsChannel::CLIENT, socket.get());
  auto const deadline = Steady::now() + std::chrono::seconds(20);
  ASSERT_EQ(channel.handshake(deadline), TlsChannel::Progress::DONE) << channel.reason();
  // So many questions, where an object is, in one go that they are read in two: the
  // later ones are seen by nobody who waits for the socket.
  std::string const one("GIOP\1\0\0\3\0\0\0\x0d\0\0\0\1\0\0\0\5Probe", 25);
  constexpr std::size_t QUESTIONS = 600;
  static_assert(QUESTIONS * 25 > 8192 && QUESTIONS * 25 <= 16384, "more than is held, one record");
  std::string all;
  for (std::size_t i = 0; i < QUESTIONS; ++i)
    all += one;
  ASSERT_EQ(channel.send(all.data(), all.size(), deadline), static_cast<int>(all.size()));
  std::string answers;
  constexpr std::size_t ANSWER = 20;
  while (answers.size() < QUESTIONS * ANSWER)
  {
    char buffer[4096];
    int const got = channel.receive(buffer, sizeof buffer, deadline);
    ASSERT_GT(got, 0) << answers.size();
    answers.append(buffer, static_cast<std::size_t>(got));
  }
  for (std::size_t i = 0; i < QUESTIONS; ++i)
    ASSERT_EQ(answers[i * ANSWER + 7], 4) << i;
}

TEST_F(HandshakesTest, noOlderVersionIsSpoken)
{
  EXPECT_EQ(SSL_CTX_get_min_proto_version(context()->get()), TLS1_2_VERSION);
  UniqueFd const socket = connectFrom("127.0.0.1");
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> const old(SSL_CTX_new(TLS_client_method()),
                                                              SSL_CTX_free);
  SSL_CTX_set_security_level(old.get(), 0);
  SSL_CTX_set_min_proto_version(old.get(), TLS1_VERSION);
  SSL_CTX_set_max_proto_version(old.get(), TLS1_1_VERSION);
  std::unique_ptr<SSL, decltype(&SSL_free)> const session(SSL_new(old.get()), SSL_free);
  SSL_set_fd(session.get(), socket.get());
  EXPECT_NE(SSL_connect(session.get()), 1);
}

TEST_F(HandshakesTest, onlyTheServicesQuestionToItselfNeedsNoCertificate)
{
  UniqueFd const plain = connectFrom("127.0.0.1");
  ASSERT_EQ(send(plain.get(), "GIOP", 4, MSG_NOSIGNAL), 4);
  EXPECT_TRUE(isEnded(plain, 2000));
  EXPECT_FALSE(isServiceAnswering("ProbeService", std::chrono::seconds(5)));
  m_server.reset();
  Orb orb(1, "", "ProbeService", 1, 16);
  ASSERT_TRUE(orb.init());
  ASSERT_EQ(orb.run(0), 0);
  EXPECT_TRUE(isServiceAnswering("ProbeService", std::chrono::seconds(20)));
}
