// A session over a pair of sockets, of which the other end is OpenSSL itself.

#include "ozf/base/SystemError.h"
#include "ozf/tls/TlsChannel.h"
#include "tests/support/Certificates.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <future>

using namespace Quillon::Tessarine::Ozf;
using testing::HasSubstr;
using tqtest::CertificateAuthority;
using tqtest::Wish;

namespace
{

class TlsChannelTest : public testing::Test
{
protected:
  using Session = std::unique_ptr<SSL, decltype(&SSL_free)>;

  TlsChannelTest()
  {
    m_authority.writeTo(m_files / "ca.pem");
    m_authority.issue(m_files.path(), "host");
    m_context = contextOf();
  }

  std::shared_ptr<TlsContext const> contextOf(std::string const& name = "host",
                                              std::string const& authorities = "ca") const
  {
    TlsSettings settings;
    settings.mode = TlsMode::ONLY;
    settings.certificate = m_files / (name + ".pem");
    settings.key = m_files / (name + ".key");
    settings.authorities = m_files / (authorities + ".pem");
    std::string error;
    auto const made = TlsContext::make(settings, error);
    EXPECT_TRUE(made) << error;
    return made;
  }

  // Shakes hands on both sides at a time. caller, when there is one, is what OpenSSL
  // calls with; otherwise it shows the certificate of that name.
  TlsChannel::Progress connect(std::string const& name, SSL_CTX* caller = nullptr)
  {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
      ADD_FAILURE() << errorText(errno);
    m_service.reset(ends[0]);
    m_caller.reset(ends[1]);
    m_channel = std::make_unique<TlsChannel>(m_context, TlsChannel::SERVER, ends[0]);
    m_callersContext = caller == nullptr ? contextOf(name) : nullptr;
    m_session.reset(SSL_new(caller == nullptr ? m_callersContext->get() : caller));
    SSL_set_fd(m_session.get(), ends[1]);
    SSL_set_mode(m_session.get(), SSL_MODE_AUTO_RETRY);
    if (m_before != nullptr)
      SSL_set_session(m_session.get(), m_before.get());
    auto calling = std::async(std::launch::async, [&] { return SSL_connect(m_session.get()); });
    auto const progress = m_channel->handshake(TlsChannel::Clock::now() + std::chrono::seconds(20));
    if (progress != TlsChannel::Progress::DONE)
      shutdown(ends[0], SHUT_RDWR);
    calling.get();
    return progress;
  }

  TempDir m_files;
  CertificateAuthority m_authority;
  std::shared_ptr<TlsContext const> m_context;
  std::shared_ptr<TlsContext const> m_callersContext;
  UniqueFd m_service;
  UniqueFd m_caller;
  std::unique_ptr<TlsChannel> m_channel;
  Session m_session{nullptr, SSL_free};
  std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)> m_before{nullptr, SSL_SESSION_free};
};

} // namespace

// Whoever reads goes on to other peers after each.
TEST_F(TlsChannelTest, messagesOfTlsItselfAreReadOneAtATime)
{
  ASSERT_EQ(connect("host"), TlsChannel::Progress::DONE) << m_channel->reason();
  constexpr int UPDATES = 50;
  for (int i = 0; i < UPDATES; ++i)
  {
    ASSERT_EQ(SSL_key_update(m_session.get(), SSL_KEY_UPDATE_NOT_REQUESTED), 1);
    ASSERT_EQ(SSL_do_handshake(m_session.get()), 1);
  }
  ASSERT_EQ(SSL_write(m_session.get(), "x", 1), 1);
  int withoutData = 0;
  char data = 0;
  int got = 0;
  while ((got = m_channel->receiveNow(&data, 1)) == 0 && withoutData <= UPDATES)
    ++withoutData;
  EXPECT_EQ(got, 1) << m_channel->reason();
  EXPECT_EQ(withoutData, UPDATES);
}

TEST_F(TlsChannelTest, keysThatAreAskedForAnewComeBetweenTwoAnswers)
{
  ASSERT_EQ(connect("host"), TlsChannel::Progress::DONE) << m_channel->reason();
  auto const deadline = TlsChannel::Clock::now() + std::chrono::seconds(20);
  for (int i = 0; i < 3; ++i)
  {
    ASSERT_EQ(SSL_key_update(m_session.get(), SSL_KEY_UPDATE_REQUESTED), 1);
    ASSERT_EQ(SSL_write(m_session.get(), "question", 8), 8);
    char text[16] = "";
    ASSERT_EQ(m_channel->receive(text, sizeof text, deadline), 8) << m_channel->reason();
    ASSERT_EQ(m_channel->send("answer", 6, deadline), 6) << m_channel->reason();
    ASSERT_EQ(SSL_read(m_session.get(), text, sizeof text), 6);
  }
}

// By either version.
TEST_F(TlsChannelTest, noSessionIsTakenUpAgain)
{
  for (int const version : {TLS1_2_VERSION, TLS1_3_VERSION})
  {
    auto const callers = contextOf();
    SSL_CTX_set_session_cache_mode(callers->get(), SSL_SESS_CACHE_CLIENT);
    SSL_CTX_clear_options(callers->get(), SSL_OP_NO_TICKET);
    SSL_CTX_set_max_proto_version(callers->get(), version);
    auto const deadline = TlsChannel::Clock::now() + std::chrono::seconds(20);
    m_before.reset();
    for (int i = 0; i < 2; ++i)
    {
      ASSERT_EQ(connect("", callers->get()), TlsChannel::Progress::DONE) << m_channel->reason();
      EXPECT_EQ(SSL_session_reused(m_session.get()), 0);
      // What is to be taken up comes with the first data at the latest.
      char data = 0;
      ASSERT_EQ(m_channel->send("x", 1, deadline), 1);
      ASSERT_EQ(SSL_read(m_session.get(), &data, 1), 1);
      m_before.reset(SSL_get1_session(m_session.get()));
      EXPECT_EQ(SSL_SESSION_is_resumable(m_before.get()), 0);
    }
    m_before.reset();
    m_session.reset();
  }
}

TEST_F(TlsChannelTest, whoShowsNoCertificateIsRefused)
{
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> const nameless(SSL_CTX_new(TLS_client_method()),
                                                                   SSL_CTX_free);
  for (int const version : {TLS1_2_VERSION, TLS1_3_VERSION})
  {
    SSL_CTX_set_max_proto_version(nameless.get(), version);
    EXPECT_EQ(connect("", nameless.get()), TlsChannel::Progress::FAILED);
    EXPECT_EQ(m_channel->reason(), "it shows no certificate");
  }
}

TEST_F(TlsChannelTest, whatWentWrongBeforeIsNotTakenForWhatIsWrongNow)
{
  ASSERT_EQ(connect("host"), TlsChannel::Progress::DONE) << m_channel->reason();
  ERR_raise(ERR_LIB_SSL, SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE);
  char data = 0;
  EXPECT_EQ(m_channel->receiveNow(&data, 1), 0);
  EXPECT_EQ(m_channel->reason(), "");
  ERR_raise(ERR_LIB_SSL, SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE);
  shutdown(m_caller.get(), SHUT_RDWR);
  EXPECT_LT(m_channel->receiveNow(&data, 1), 0);
  EXPECT_EQ(m_channel->reason(), "it closed the connection");
}

TEST_F(TlsChannelTest, whoHasProvenWhoHeIsIsJudgedAgainByWhatHoldsNow)
{
  ASSERT_EQ(connect("host"), TlsChannel::Progress::DONE) << m_channel->reason();
  EXPECT_EQ(m_channel->refusalNow(*contextOf()), "");
  CertificateAuthority other("The next authority");
  other.issue(m_files.path(), "next");
  other.writeTo(m_files / "next_ca.pem");
  EXPECT_EQ(m_channel->refusalNow(*contextOf("next", "next_ca")),
            "its certificate (localhost, 127.0.0.1) is refused: it is of another authority than "
            "those of TLS_CA");
}

TEST_F(TlsChannelTest, aPeerMayNotShowWhatIsMadeForServersAlone)
{
  Wish wish;
  wish.usage = "serverAuth";
  m_authority.issue(m_files.path(), "server", wish);
  EXPECT_EQ(connect("server"), TlsChannel::Progress::FAILED);
  EXPECT_THAT(m_channel->reason(), HasSubstr("it is not made for this role"));
}
