// Who is refused by a service with TLS, what its log says of it, and what the one who
// asked is told.

#include "tests/system/tls/TlsServiceTesting.h"

namespace
{

using namespace tqtest;
using testing::HasSubstr;

constexpr char ENDED[] = "Ended a connection from 127.0.0.1 before any call: ";

class TlsRefusalsTest : public TlsServiceTest
{
protected:
  void start(std::string const& lists = "")
  {
    m_service.configure(tlsLines("only", m_files.path(), "service") + lists);
    ASSERT_TRUE(m_service.start()) << m_service.log();
  }

  void stop() { EXPECT_EQ(m_service.stop(), 0) << m_service.log(); }

  std::string place() const
  {
    return std::string(LiveService::NAME) + ":" + std::to_string(m_service.port());
  }

  // What query and the check tell whoever shows that certificate, and their exit codes.
  void expectTold(std::string const& certificate, int queryExit, std::string const& query,
                  int checkExit, std::string const& checkText) const
  {
    Outcome outcome = run(certificate, {"query"});
    EXPECT_EQ(outcome.exitCode, queryExit) << certificate << ": " << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr(query)) << certificate;
    if (certificate.empty())
      return; // there is nothing to be looked at
    outcome = check(LiveService::NAME, certificate);
    EXPECT_EQ(outcome.exitCode, checkExit) << certificate << ": " << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr(checkText)) << certificate;
  }

  void expectLine(std::string const& line)
  {
    EXPECT_TRUE(m_service.process().awaitError(line)) << line << '\n' << m_service.log();
  }
};

} // namespace

TEST_F(TlsRefusalsTest, whoShowsNoCertificate)
{
  start();
  EXPECT_FALSE(isAnswered(""));
  expectLine(std::string(ENDED) + "it shows no certificate");
  expectTold("", 5, "a service with TLS = only ends those without TLS", 0, "");
  expectLine(std::string(ENDED) + "it does not speak TLS, which TLS = only asks for");
  stop();
}

TEST_F(TlsRefusalsTest, whoseCertificateIsOfAnotherAuthority)
{
  start();
  CertificateAuthority other("Another authority");
  other.issue(m_files.path(), "stranger", wishFor(LiveService::NAME));
  std::string const told =
      "it refuses this host's certificate: it is of an authority that is not known there";
  expectTold("stranger", 5, told, 1, place() + " accepts no call: " + told);
  expectLine(std::string(ENDED) + "its certificate (tqtestmaster) is refused: it is of another "
                                  "authority than those of TLS_CA");
  stop();
}

TEST_F(TlsRefusalsTest, whoseCertificateHasExpired)
{
  start();
  Wish wish = wishFor(LiveService::NAME);
  wish.begin = -7200;
  wish.end = -3600;
  m_authority.issue(m_files.path(), "late", wish);
  std::string const told = "it refuses this host's certificate: it has expired";
  expectTold("late", 5, told, 1, place() + " accepts no call: " + told);
  expectLine(std::string(ENDED) + "its certificate (tqtestmaster) is refused: it has expired");
  stop();
}

TEST_F(TlsRefusalsTest, whoseAuthoritysCertificateHasExpired)
{
  CertificateAuthority old("Old fleet", -3600);
  old.writeTo(m_files / "old.pem");
  old.issue(m_files.path(), "user", wishFor("user"));
  // The service is believed, and does not believe.
  std::string lines = tlsLines("only", m_files.path(), "service");
  lines.replace(lines.rfind("ca.pem"), 2, "old");
  m_service.configure(lines);
  ASSERT_TRUE(m_service.start()) << m_service.log();
  EXPECT_FALSE(isAnswered("user"));
  expectLine(std::string(ENDED) + "its certificate (user) is refused: the certificate of the "
                                  "authority Old fleet has expired");
  Outcome outcome = check(LiveService::NAME, "user");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors,
              HasSubstr(place() + " accepts no call: it refuses this host's certificate: it, or "
                                  "that of its authority, has expired there"));
  // Nobody is believed.
  old.issue(m_files.path(), "service", wishFor(LiveService::NAME));
  reload("Took the certificate ");
  outcome = check(LiveService::NAME, "service", "old.pem");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.output,
              HasSubstr("That of the authority Old fleet, on which it rests, ended"));
  EXPECT_THAT(outcome.errors,
              testing::AllOf(HasSubstr("service.pem is refused by peers: the certificate of the "
                                       "authority Old fleet has expired"),
                             HasSubstr(place() + " is not accepted: its certificate "
                                                 "(tqtestmaster) is refused: the certificate of "
                                                 "the authority Old fleet has expired")));
  stop();
}

TEST_F(TlsRefusalsTest, whoseCertificateIsNotMadeForCalling)
{
  start();
  Wish wish = wishFor(LiveService::NAME);
  wish.usage = "serverAuth";
  m_authority.issue(m_files.path(), "server", wish);
  std::string const told = "it refuses this host's certificate: it is not made for this role";
  expectTold("server", 5, told, 1, place() + " accepts no call: " + told);
  expectLine(std::string(ENDED) + "its certificate (tqtestmaster) is refused: it is not made for "
                                  "this role");
  stop();
}

// The side that calls finds that out.
TEST_F(TlsRefusalsTest, aServiceWithTheCertificateOfAnotherHost)
{
  m_authority.issue(m_files.path(), "service", wishFor("backup2"));
  start();
  expectTold("user", 5, "the certificate of 127.0.0.1 (tqtestmaster) is for backup2", 1,
             place() + " is not accepted: the certificate of tqtestmaster is for backup2");
  stop();
}

// All is right with the certificate, and its names are in no list.
TEST_F(TlsRefusalsTest, whoHasNoRole)
{
  m_authority.issue(m_files.path(), "guest", wishFor("guest"));
  start("ALLOW_READ = user\nALLOW_WRITE = tqtest*\nALLOW_CONTROL = tqtest*, *.admin\n");
  expectTold("guest", 6, "refused by the service at " + place() + ": it does not allow this", 6,
             place() + " has no role for this host: it may not read, write or control there, by "
                       "ALLOW_READ, ALLOW_WRITE and ALLOW_CONTROL of its configuration");
  expectLine("Refused a call of 127.0.0.1 (guest): _is_a is for ALLOW_READ = user; ALLOW_WRITE = "
             "tqtest*; ALLOW_CONTROL = tqtest*, *.admin");
  expectLine("Refused a call of 127.0.0.1 (guest): getCollectionData is for ALLOW_READ = user (");
  stop();
}

TEST_F(TlsRefusalsTest, whoHasAnotherRole)
{
  start("ALLOW_READ = user\nALLOW_WRITE = tqtest*\nALLOW_CONTROL = tqtest*\n");
  Outcome outcome = run("user", {"stop"});
  EXPECT_EQ(outcome.exitCode, 6) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("ALLOW_CONTROL of its configuration"));
  expectLine("Refused a call of 127.0.0.1 (user): terminate is for ALLOW_CONTROL = tqtest* (");
  outcome = run("service", {"query"});
  EXPECT_EQ(outcome.exitCode, 6) << outcome.errors;
  expectLine("Refused a call of 127.0.0.1 (tqtestmaster): queryDiscoveries is for ALLOW_READ = "
             "user (");
  stop();
}

TEST_F(TlsRefusalsTest, theCheckTellsTheRole)
{
  auto const told = [this](std::string const& certificate)
  {
    Outcome const outcome = check(LiveService::NAME, certificate);
    auto const at = outcome.output.find(place() + " lets");
    return at == std::string::npos ? outcome.output + outcome.errors : outcome.output.substr(at);
  };
  start("ALLOW_READ = user\nALLOW_WRITE = tqtest*\nALLOW_CONTROL = tqtest*\n");
  EXPECT_EQ(told("user"), place() + " lets this host read, but not write or control, by "
                                    "ALLOW_WRITE and ALLOW_CONTROL of its configuration.\n");
  EXPECT_EQ(told("service"), place() + " lets this host write and control, but not read, by "
                                       "ALLOW_READ of its configuration.\n");
  m_service.configure(tlsLines("only", m_files.path(), "service") + "ALLOW_CONTROL = any\n");
  reload("Took the lists of who may call");
  EXPECT_EQ(told("service"), place() + " lets this host read, write and control.\n");
  EXPECT_EQ(run("service", {"query"}).exitCode, 3) << "nothing came of the question";
  stop();
}

TEST_F(TlsRefusalsTest, theCheckDoesNotTakeAnotherAnswerForLeave)
{
  start("ALLOW_READ = none\nALLOW_WRITE = none\nALLOW_CONTROL = none\nLIMIT_PEER_REQUESTS = 1\n"
        "LIMIT_REQUEST_WAIT = 0\n");
  Outcome outcome{};
  // The calls of a check may come a second apart, each in its turn.
  EXPECT_TRUE(eventually(
      [&]
      {
        outcome = check(LiveService::NAME, "service");
        EXPECT_THAT(outcome.output, testing::Not(HasSubstr("lets this host")));
        return outcome.exitCode == 1;
      }))
      << outcome.errors;
  EXPECT_THAT(outcome.errors,
              testing::ContainsRegex("whether " + place() +
                                     " lets this host (read|write|control) "
                                     "could not be found out: it answers TRANSIENT"));
  stop();
}

TEST_F(TlsRefusalsTest, theCheckTriesAllAddressesOfTheHost)
{
  start("HOST_ADDRESS.big = 127.0.0.2, ::1, 127.0.0.1\n");
  std::string const big = "big:" + std::to_string(m_service.port());
  Outcome const outcome = check(big, "service");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, HasSubstr(big + " at 127.0.0.1 is not accepted: the certificate of "
                                              "big is for tqtestmaster"));
  stop();
}

TEST_F(TlsRefusalsTest, theCheckGoesOnWhereAnotherHostIsAtAnAddress)
{
  LiveService other(LiveService::WITHOUT_EXPLORERS, "backup2", "127.0.0.2", m_service.port());
  m_authority.issue(m_files.path(), "other", wishFor("backup2"));
  other.configure(tlsLines("only", m_files.path(), "other"));
  ASSERT_TRUE(other.start()) << other.log();
  start("HOST_ADDRESS.tqtestmaster = 127.0.0.2, 127.0.0.1\n");
  Outcome const outcome = check(LiveService::NAME, "service");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.errors,
              HasSubstr(place() + " at 127.0.0.2 is not accepted: the certificate of "
                                  "tqtestmaster is for backup2"));
  EXPECT_THAT(outcome.output, HasSubstr(place() + " at 127.0.0.1 lets this host read, write"));
  EXPECT_EQ(other.stop(), 0) << other.log();
  stop();
}

TEST_F(TlsRefusalsTest, aWriteToAnEndedConnectionEndsNoTest)
{
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  close(ends[1]);
  {
    BrokenPipes const fail;
    EXPECT_EQ(write(ends[0], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
  }
  close(ends[0]);
  sigset_t blocked{};
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
  EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
}
