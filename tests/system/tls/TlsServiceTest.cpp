// What a service and the command do with certificates.

#include "tests/support/CoreOfProcess.h"
#include "tests/system/tls/TlsServiceTesting.h"

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

} // namespace

TEST_F(TlsServiceTest, answersWhoeverProvesWhoHeIsAndNobodyElse)
{
  configure("only");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  Outcome outcome = run("service", {"query"});
  EXPECT_EQ(outcome.exitCode, 3) << outcome.errors;
  outcome = run("", {"query"});
  EXPECT_EQ(outcome.exitCode, 5) << outcome.errors;
  EXPECT_THAT(m_service.log(),
              HasSubstr("Ended a connection from 127.0.0.1 before any call: it does not speak TLS, "
                        "which TLS = only asks for"));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, theAuditLogHasTheNamesOfThePeersCertificateAndTheRefusedPeers)
{
  std::string const audit = m_files / "audit.log";
  m_service.configure(tlsLines("only", m_files.path(), "service") + "AUDIT_FILE = " + audit + "\n");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  EXPECT_EQ(run("user", {"put", "web7", "rack", "Row=7"}).exitCode, 0);
  EXPECT_EQ(run("", {"query"}).exitCode, 5);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  std::string const records = readText(audit);
  EXPECT_THAT(
      records,
      HasSubstr("\"peer\":\"127.0.0.1\",\"name\":[\"user\"],\"operation\":\"putCollection\","
                "\"subject\":\"web7\",\"authority\":\"rack\",\"result\":\"stored\"}"));
  EXPECT_THAT(
      records,
      HasSubstr("\"operation\":\"connect\",\"subject\":\"\",\"authority\":\"\","
                "\"result\":\"refused: it does not speak TLS, which TLS = only asks for\"}"));
}

TEST_F(TlsServiceTest, aCrashLeavesTheKeyBehindOnlyWhereThatIsWanted)
{
  allowCores();
  configure("");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  auto const core = [this] { return coreOf(m_service.process().pid()); };
  std::string const before = core();
  ASSERT_NE(before.substr(0, 9), std::string(NO_CORE, 9));
  configure("only");
  reload("Took the certificate ");
  EXPECT_EQ(core(), NO_CORE);
  m_service.configure(tlsLines("only", m_files.path(), "service") +
                      "CORE_DUMPS = yes\nLOG_LEVEL = nonsense\n");
  reload("what held before holds on: ");
  EXPECT_EQ(core(), NO_CORE) << "the configuration was refused";
  m_service.configure(tlsLines("both", m_files.path(), "service") + "CORE_DUMPS = yes\n");
  m_service.process().sendSignal(SIGHUP);
  EXPECT_TRUE(eventually([&] { return core() == before; })) << core();
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, theModeAndTheCertificateAreTakenAtAReload)
{
  configure("");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  EXPECT_EQ(run("", {"query"}).exitCode, 3);
  EXPECT_EQ(run("user", {"query"}).exitCode, 5);
  configure("both");
  reload("Took the certificate " + (m_files / "service.pem") + ", which ends on ");
  EXPECT_EQ(run("", {"query"}).exitCode, 3);
  EXPECT_EQ(run("user", {"query"}).exitCode, 3);
  EXPECT_THAT(m_service.log(), HasSubstr("127.0.0.1 calls without TLS, as TLS = both allows"));

  Wish wish = wishFor(LiveService::NAME);
  wish.end = 50L * 86400 + 3600;
  m_authority.issue(m_files.path(), "service", wish);
  configure("only");
  reload("in 50 days");
  EXPECT_EQ(run("", {"query"}).exitCode, 5);
  Outcome outcome = check(LiveService::NAME, "service");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, HasSubstr(", in 50 days."));

  writeText(m_files / "service.key", "nonsense");
  reload("what held before holds on: " + (m_service / "etc/tq.conf") + ": TLS_KEY ");
  EXPECT_EQ(run("user", {"query"}).exitCode, 3);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

// Without a configuration TLS would be off: nobody is let in by a file that is away.
TEST_F(TlsServiceTest, aConfigurationThatIsAwayAtAReloadOpensThePortForNobody)
{
  configure("only");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  std::string const file = m_service / "etc/tq.conf";
  std::filesystem::rename(file, file + ".away");
  reload("what held before holds on: " + file + ": cannot be read");
  std::filesystem::rename(file + ".away", file);
  EXPECT_EQ(run("", {"query"}).exitCode, 5);
  EXPECT_EQ(run("user", {"query"}).exitCode, 3);
  // It takes a configuration that says so.
  configure("");
  reload("TLS is off from now on: nobody is asked for a certificate");
  EXPECT_EQ(run("", {"query"}).exitCode, 3);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, aCertificateThatEndsSoonIsToldInTheLogAndByStatus)
{
  Wish wish = wishFor(LiveService::NAME);
  wish.end = 20L * 86400 + 3600;
  m_authority.issue(m_files.path(), "service", wish);
  configure("only");
  m_service.addExplorers();
  ASSERT_TRUE(m_service.start()) << m_service.log();
  EXPECT_TRUE(m_service.process().awaitError("in 20 days")) << m_service.log();
  Outcome const status = statusToldTo("user");
  EXPECT_THAT(status.errors, HasSubstr("1 certificate ends within 30 days: tqtestmaster"));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, anAuthorityThatEndsSoonIsToldInTheLogAndByStatus)
{
  CertificateAuthority authority("Fleet", 20L * 86400 + 3600);
  authority.writeTo(m_files / "ca.pem");
  Wish wish = wishFor(LiveService::NAME);
  wish.end = 365L * 86400;
  authority.issue(m_files.path(), "service", wish);
  configure("only");
  m_service.addExplorers();
  ASSERT_TRUE(m_service.start()) << m_service.log();
  EXPECT_TRUE(m_service.process().awaitError("The certificate of the authority Fleet, on which " +
                                             (m_files / "service.pem") + " rests, ends on "))
      << m_service.log();
  Outcome const status = statusToldTo("service");
  EXPECT_THAT(status.errors, HasSubstr(" (that of its authority, Fleet). "));
  Outcome const outcome = check(LiveService::NAME, "service");
  EXPECT_THAT(outcome.output,
              AllOf(HasSubstr("is for tqtestmaster, is signed by Fleet and ends on"),
                    HasSubstr("That of the authority Fleet, on which it rests, ends "
                              "on "),
                    HasSubstr(", in 20 days.\n")));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, statusShowsWhenCertificatesEnd)
{
  m_service.addExplorers();
  configure("only");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  Outcome const status = statusToldTo("user");
  EXPECT_THAT(status.output, AllOf(HasSubstr("  TLS UNTIL  "),
                                   testing::ContainsRegex("tqtestmaster .* 20[0-9]{2}-[0-9]{2}-"
                                                          "[0-9]{2} ")));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

// Each by what it shows, or does not.
TEST_F(TlsServiceTest, aPeerThatProvesNothingIsRefusedWithALineOfItsOwn)
{
  configure("only");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  CertificateAuthority other("Another authority");
  other.issue(m_files.path(), "stranger", wishFor("stranger"));
  Wish wish = wishFor("late");
  wish.begin = -7200;
  wish.end = -3600;
  m_authority.issue(m_files.path(), "late", wish);
  wish = wishFor("early");
  wish.begin = 3600;
  m_authority.issue(m_files.path(), "early", wish);
  wish = wishFor("server");
  wish.usage = "serverAuth";
  m_authority.issue(m_files.path(), "server", wish);
  struct
  {
    char const* certificate;
    char const* reason;
  } const peers[] = {
      {"", "it shows no certificate"},
      {"stranger", "its certificate (stranger) is refused: it is of another authority than those "
                   "of TLS_CA"},
      {"late", "its certificate (late) is refused: it has expired"},
      {"early", "its certificate (early) is refused: it is not valid yet"},
      {"server", "its certificate (server) is refused: it is not made for this role"},
  };
  for (auto const& peer : peers)
  {
    EXPECT_FALSE(isAnswered(peer.certificate)) << peer.certificate;
    EXPECT_TRUE(m_service.process().awaitError(
        std::string("Ended a connection from 127.0.0.1 before any call: ") + peer.reason))
        << peer.reason << '\n'
        << m_service.log();
  }
  EXPECT_TRUE(isAnswered("user"));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, theCheckTellsWhatIsWrong)
{
  configure("only");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  std::string const port = std::to_string(m_service.port());
  std::string const place = std::string(LiveService::NAME) + ":" + port;

  // Which the host of the command is not: its own is told first.
  Outcome outcome = check(LiveService::NAME, "service");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.errors, IsEmpty());
  EXPECT_THAT(outcome.output,
              HasSubstr(place + " speaks TLSv1.3; its certificate is for " + LiveService::NAME +
                        ", is signed by Test authority and ends on "));
  outcome = check();
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_THAT(outcome.errors, HasSubstr("it is for user and not for this host, tqtestmaster"));

  outcome = check("localhost:" + port, "service");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("localhost:" + port +
                                        " is not accepted: the certificate of localhost is for "
                                        "tqtestmaster"));

  CertificateAuthority other("Another authority");
  other.writeTo(m_files / "other.pem");
  outcome = check(LiveService::NAME, "service", "other.pem");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors,
              HasSubstr(place + " is not accepted: its certificate (tqtestmaster) is refused: it "
                                "is of another authority than those of TLS_CA"));

  Wish wish = wishFor(LiveService::NAME);
  wish.begin = -7200;
  wish.end = -3600;
  m_authority.issue(m_files.path(), "late", wish);
  outcome = check(LiveService::NAME, "late");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors,
              AllOf(HasSubstr("late.pem is refused by peers: it has expired"),
                    HasSubstr(place + " accepts no call: it refuses this host's certificate: it "
                                      "has expired")));

  wish = wishFor(LiveService::NAME);
  wish.usage = "serverAuth";
  m_authority.issue(m_files.path(), "server", wish);
  outcome = check(LiveService::NAME, "server");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("it refuses this host's certificate: it is not made for "
                                        "this role"));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, theCheckTellsOfAServiceWithoutTls)
{
  configure("");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  Outcome const outcome = check(LiveService::NAME, "service");
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("is not accepted: it does not speak TLS"));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, theCommandTellsWhyAServiceIsNotReached)
{
  m_authority.issue(m_files.path(), "service", wishFor("backup2"));
  configure("only");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  EXPECT_THAT(m_service.log(), HasSubstr("it is for backup2 and not for this host, tqtestmaster"));
  Outcome outcome = run("user", {"query"});
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_THAT(outcome.errors,
              HasSubstr("the certificate of 127.0.0.1 (tqtestmaster) is for backup2"));
  outcome = run("nobody", {"query"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("TLS_CERTIFICATE " + (m_files / "nobody.pem")),
                                    HasSubstr("No such file or directory")));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(TlsServiceTest, theConfigurationsCheckReadsTheFiles)
{
  auto const checked = [&]
  {
    return runProgram(TQ_BIN_DIR "/tqdisco", {"--check-config"},
                      {{"TESSARINE_ROOT", m_service.root()}});
  };
  configure("only");
  Outcome outcome = checked();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  m_authority.issue(m_files.path(), "service", wishFor("backup2"));
  std::filesystem::remove(m_files / "ca.pem");
  outcome = checked();
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_THAT(outcome.errors, HasSubstr("tq.conf: TLS_CA " + (m_files / "ca.pem") +
                                        " cannot be read: No such file or directory (2)"));
  m_authority.writeTo(m_files / "ca.pem");
  outcome = checked();
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_THAT(outcome.errors, HasSubstr("is refused by peers: it is for backup2 and not for this "
                                        "host, tqtestmaster"));
}
