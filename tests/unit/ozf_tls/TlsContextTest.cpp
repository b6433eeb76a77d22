// What a host can prove itself with, and what is wrong with files that it cannot.

#include "ozf/config/Configuration.h"
#include "ozf/tls/CurrentTls.h"
#include "tests/support/Certificates.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tqtest::CertificateAuthority;
using tqtest::tlsLines;
using tqtest::Wish;

namespace
{

class TlsContextTest : public testing::Test
{
protected:
  TlsContextTest()
  {
    m_authority.writeTo(m_files / "ca.pem");
    m_authority.issue(m_files.path(), "host");
  }

  Configuration configured(std::string const& lines) const
  {
    writeText(m_files / "tq.conf", lines);
    return Configuration::read(m_files / "tq.conf");
  }
  std::vector<std::string> problems(std::string const& more = "CLIENT_NAME = localhost\n") const
  {
    return checkTls(configured(more + tlsLines("only", m_files.path(), "host")));
  }
  // Taken by the process.
  std::shared_ptr<TlsContext const> taken() const
  {
    setenv("TESSARINE_ROOT", m_files.path().c_str(), 1);
    std::filesystem::create_directories(m_files / "etc");
    writeText(m_files / "etc/tq.conf",
              "CLIENT_NAME = localhost\n" + tlsLines("only", m_files.path(), "host"));
    reloadConfiguration();
    std::string error;
    EXPECT_TRUE(setUpTls(error)) << error;
    return currentTls();
  }
  std::string problemsWith(Wish const& wish)
  {
    m_authority.issue(m_files.path(), "host", wish);
    auto const all = problems();
    return all.empty() ? std::string() : all.front();
  }

  static constexpr std::time_t DAY_LONG = 86400;
  TempDir m_files;
  CertificateAuthority m_authority;
  std::string const m_start =
      "TLS_CERTIFICATE " + (m_files / "host.pem") + " is refused by peers: ";
};

} // namespace

TEST_F(TlsContextTest, filesThatAreInOrderHaveNoProblem) { EXPECT_THAT(problems(), IsEmpty()); }

TEST_F(TlsContextTest, withoutTlsNothingIsRead)
{
  EXPECT_THAT(checkTls(configured("")), IsEmpty());
  EXPECT_THAT(checkTls(configured("TLS = off\nTLS_KEY = /nowhere\n")), IsEmpty());
}

TEST_F(TlsContextTest, aMissingKeyIsNamed)
{
  EXPECT_THAT(
      checkTls(configured("TLS = only\nTLS_CERTIFICATE = " + (m_files / "host.pem") + "\n")),
      ElementsAre("TLS_KEY is missing although TLS is only; accepted: the path of a file "
                  "in PEM format"));
}

TEST_F(TlsContextTest, aModeThatIsNoneIsAMistakeOfItsLine)
{
  auto const configuration = configured("TLS = yes\n");
  EXPECT_THAT(checkTls(configuration), IsEmpty());
  ASSERT_EQ(configuration.check().size(), 1U);
  EXPECT_THAT(configuration.check().front().text(),
              HasSubstr("\"TLS\" is \"yes\"; accepted: off, both and only"));
  TlsSettings settings;
  std::string error;
  EXPECT_FALSE(settings.read(configuration, error));
  EXPECT_EQ(error, "TLS is \"yes\"; accepted: off, both and only");
}

TEST_F(TlsContextTest, aFileThatIsNotThereIsNamedWithTheReason)
{
  std::filesystem::remove(m_files / "host.key");
  EXPECT_THAT(problems(), ElementsAre("TLS_KEY " + (m_files / "host.key") +
                                      " cannot be read: No such file or directory (2)"));
}

TEST_F(TlsContextTest, aKeyOfAnotherCertificateIsTold)
{
  m_authority.issue(m_files.path(), "other");
  std::filesystem::rename(m_files / "other.key", m_files / "host.key");
  EXPECT_THAT(problems(),
              ElementsAre("TLS_KEY " + (m_files / "host.key") +
                          " is not the key of TLS_CERTIFICATE " + (m_files / "host.pem")));
}

TEST_F(TlsContextTest, aKeyThatEverybodyMayReadIsRefused)
{
  chmod((m_files / "host.key").c_str(), 0644);
  EXPECT_THAT(problems(), ElementsAre(HasSubstr("host.key can be read by everybody on this host")));
}

TEST_F(TlsContextTest, noFileIsUsedThatOthersMayChange)
{
  for (auto const& [key, name] : {std::pair("TLS_CERTIFICATE", "host.pem"),
                                  std::pair("TLS_KEY", "host.key"), std::pair("TLS_CA", "ca.pem")})
  {
    std::string const path = m_files / name;
    chmod(path.c_str(), 0602);
    EXPECT_THAT(problems(), ElementsAre(key + (" " + path) + " may be changed by others: " + path +
                                        " may be written to by others than its owner"));
    chmod(path.c_str(), 0600);
  }
  chmod(m_files.path().c_str(), 0777);
  EXPECT_THAT(problems(), ElementsAre("TLS_CERTIFICATE " + (m_files / "host.pem") +
                                      " may be changed by others: " + (m_files / "") +
                                      " may be written to by others than its owner"));
}

TEST_F(TlsContextTest, aCertificateThatPeersRefuseIsToldWithTheReason)
{
  Wish wish;
  wish.begin = -7200;
  wish.end = -3600;
  EXPECT_EQ(problemsWith(wish), m_start + "it has expired");
  wish.begin = 3600;
  wish.end = 7200;
  EXPECT_EQ(problemsWith(wish), m_start + "it is not valid yet");
  wish = {};
  wish.names = "DNS:backup2";
  EXPECT_EQ(problemsWith(wish), m_start + "it is for backup2 and not for this host, localhost");
  wish = {};
  wish.usage = "clientAuth";
  EXPECT_EQ(problemsWith(wish), m_start + "it is not made for this role: its extended key usage "
                                          "has to allow servers and clients");
  CertificateAuthority other("Another authority");
  other.issue(m_files.path(), "host");
  EXPECT_THAT(problems(), ElementsAre(m_start + "it is of another authority than those of TLS_CA"));
}

TEST_F(TlsContextTest, aCertificateThatEndsIsToldOnceADayFromThirtyDaysAhead)
{
  std::time_t const end = taken()->certificate().end();
  LogCapture log(1);
  ExpiryWarning warning;
  warning.look(end - 31 * DAY_LONG);
  EXPECT_THAT(log.lines(), IsEmpty());
  warning.look(end - 30 * DAY_LONG);
  warning.look(end - 30 * DAY_LONG + 10);
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.has(1, "ExpiryWarning::look",
                      "The certificate " + (m_files / "host.pem") + " ends on " + shownTime(end) +
                          ", in 30 days"))
      << log.text();
  warning.look(end - 29 * DAY_LONG);
  EXPECT_EQ(log.lines().size(), 2U);
  // A clock that is set back by ten days.
  warning.look(end - 19 * DAY_LONG);
  warning.look(end - 29 * DAY_LONG);
  EXPECT_EQ(log.lines().size(), 4U);
  warning.look(end + 1);
  EXPECT_TRUE(log.has(1, "ExpiryWarning::look",
                      "The certificate " + (m_files / "host.pem") + " ended on " + shownTime(end)))
      << log.text();
}

TEST_F(TlsContextTest, theEndOfAnAuthoritysCertificateIsToldWhereItComesFirst)
{
  CertificateAuthority authority("Fleet", 5 * DAY_LONG);
  authority.writeTo(m_files / "ca.pem");
  Wish wish;
  wish.end = 365 * DAY_LONG;
  authority.issue(m_files.path(), "host", wish);
  auto const context = taken();
  std::time_t const end = context->firstToEnd().end();
  EXPECT_LT(end, context->certificate().end());
  EXPECT_EQ(context->authorityToEnd(), "Fleet");
  LogCapture log(1);
  ExpiryWarning().look(end - 31 * DAY_LONG);
  EXPECT_THAT(log.lines(), IsEmpty());
  ExpiryWarning().look(end - 4 * DAY_LONG);
  EXPECT_TRUE(log.has(1, "ExpiryWarning::look",
                      "The certificate of the authority Fleet, on which " + (m_files / "host.pem") +
                          " rests, ends on " + shownTime(end) + ", in 4 days"))
      << log.text();
}

TEST_F(TlsContextTest, anAuthorityThatHasBeenRenewedEndsWithTheLastOfItsCertificates)
{
  CertificateAuthority authority("Fleet", 5 * DAY_LONG);
  authority.issue(m_files.path(), "host");
  Wish wish;
  wish.end = 365 * DAY_LONG;
  authority.issue(m_files.path(), "host", wish);
  authority.writeTo(m_files / "old.pem");
  std::string const old = readText(m_files / "old.pem");
  for (auto const& [end, ending] : {std::pair(100 * DAY_LONG, "Fleet"), {500 * DAY_LONG, ""}})
  {
    authority.renew(end);
    authority.writeTo(m_files / "new.pem");
    std::string const renewed = readText(m_files / "new.pem");
    for (auto const& both : {old + renewed, renewed + old})
    {
      writeText(m_files / "ca.pem", both);
      auto const context = taken();
      EXPECT_EQ(context->authorityToEnd(), ending);
      EXPECT_GT(context->firstToEnd().end(), std::time(nullptr) + 99 * DAY_LONG);
    }
  }
}

TEST_F(TlsContextTest, theCertificateThatHasExpiredIsNamedWhereItIsTheAuthoritys)
{
  CertificateAuthority authority("Old fleet", -3600);
  authority.writeTo(m_files / "ca.pem");
  EXPECT_THAT(problems(), ElementsAre(m_start + "it is of another authority than those of TLS_CA"));
  authority.issue(m_files.path(), "host");
  EXPECT_THAT(problems(),
              ElementsAre(m_start + "the certificate of the authority Old fleet has expired"));
  EXPECT_EQ(taken()->authorityToEnd(), "Old fleet");
}
