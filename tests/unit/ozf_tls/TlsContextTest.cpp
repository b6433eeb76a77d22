// What a host can prove itself with, and what is wrong with files that it cannot.

#include "ozf/config/Configuration.h"
#include "ozf/tls/CurrentTls.h"
#include "ozf/tls/HostProof.h"
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
  std::string problemsWith(Wish const& wish)
  {
    m_authority.issue(m_files.path(), "host", wish);
    auto const all = problems();
    return all.empty() ? std::string() : all.front();
  }

  Certificate issued(Wish const& wish)
  {
    m_authority.issue(m_files.path(), "other", wish);
    TlsSettings settings;
    std::string error;
    EXPECT_TRUE(settings.read(configured(tlsLines("only", m_files.path(), "other")), error));
    auto const context = TlsContext::make(settings, error);
    EXPECT_TRUE(context) << error;
    return context->certificate();
  }

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

TEST_F(TlsContextTest, aCertificateNamesItsAlternativeNamesAndFailingThoseItsCommonName)
{
  Wish wish;
  wish.commonName = "common";
  wish.names = "DNS:web1.example,DNS:*.lab.example,IP:192.0.2.7";
  Certificate const several = issued(wish);
  EXPECT_THAT(several.names(), ElementsAre("web1.example", "*.lab.example", "192.0.2.7"));
  EXPECT_TRUE(several.names("WEB1.example."));
  EXPECT_TRUE(several.names("a.lab.example"));
  EXPECT_TRUE(several.names("192.0.2.7"));
  EXPECT_FALSE(several.names("common"));
  EXPECT_FALSE(several.names("web1"));
  EXPECT_FALSE(several.names("a.b.lab.example"));
  EXPECT_FALSE(several.names("192.0.2.8"));
  EXPECT_FALSE(several.names(""));
  wish.names.clear();
  EXPECT_TRUE(issued(wish).names("common"));
}

// Else a host could be called by a name that who reads its names does not see.
TEST_F(TlsContextTest, theCommonNameCountsForNothingBesideAnAlternativeNameOfAnyKind)
{
  Wish wish;
  wish.commonName = "common";
  wish.names = "IP:192.0.2.7";
  Certificate const address = issued(wish);
  EXPECT_THAT(address.names(), ElementsAre("192.0.2.7"));
  EXPECT_FALSE(address.names("common"));
  EXPECT_TRUE(address.names("192.0.2.7"));
}

TEST_F(TlsContextTest, aDomainIsNoHost)
{
  Wish wish;
  wish.names = "DNS:web1.example.net";
  EXPECT_FALSE(issued(wish).names(".example.net"));
  EXPECT_FALSE(issued(wish).names("."));
}

TEST_F(TlsContextTest, aWildcardStandsForOneWholeLabelOfADomain)
{
  Wish wish;
  wish.names = "DNS:*.example.net,DNS:w*.example.org,DNS:*,DNS:*.net,DNS:web1";
  Certificate const wide = issued(wish);
  EXPECT_TRUE(wide.names("web1.example.net"));
  EXPECT_FALSE(wide.names("example.net"));
  EXPECT_FALSE(wide.names("web1.example.org"));
  EXPECT_FALSE(wide.names("web2"));
  EXPECT_FALSE(wide.names("example.com"));
  EXPECT_FALSE(wide.names("192.0.2.7"));
}

TEST_F(TlsContextTest, aNameWithANulIsNotWhatComesBeforeIt)
{
  Wish wish;
  wish.hostName = std::string("web1\0.evil.example", 18);
  Certificate const tricky = issued(wish);
  EXPECT_FALSE(tricky.names("web1"));
  EXPECT_EQ(tricky.shownNames(), "web1%00.evil.example");
}

TEST_F(TlsContextTest, anAddressOfVersion6IsComparedInAnyForm)
{
  Wish wish;
  wish.names = "IP:2001:db8::1,DNS:2001-db8--2.example";
  Certificate const host = issued(wish);
  EXPECT_TRUE(host.names("2001:DB8:0:0::1"));
  EXPECT_FALSE(host.names("2001:db8::2"));
  EXPECT_THAT(host.names(), ElementsAre("2001:db8::1", "2001-db8--2.example"));
}

TEST_F(TlsContextTest, aNameWithControlsIsShownWithoutThem)
{
  Wish wish;
  wish.names.clear();
  wish.commonName = "web\x1b[2Jx";
  EXPECT_EQ(issued(wish).shownNames(), "web%1B[2Jx");
}

TEST_F(TlsContextTest, anAddressIsProvenByANameThatIsGivenThatAddress)
{
  setenv("TESSARINE_ROOT", m_files.path().c_str(), 1);
  std::filesystem::create_directories(m_files / "etc");
  writeText(m_files / "etc/tq.conf", "HOST_ADDRESS.backup1 = 192.0.2.7\n");
  reloadConfiguration();
  Wish wish;
  wish.names = "DNS:backup1";
  Certificate const backup1 = issued(wish);
  std::string reason;
  EXPECT_TRUE(isProvenHost(backup1, "backup1", reason));
  EXPECT_TRUE(isProvenHost(backup1, "192.0.2.7", reason));
  EXPECT_FALSE(isProvenHost(backup1, "192.0.2.8", reason));
  EXPECT_EQ(reason, "the certificate of 192.0.2.8 is for backup1");
  // The resolver knows this one, and is asked only where no name is given.
  wish.names = "DNS:localhost";
  Certificate const local = issued(wish);
  EXPECT_TRUE(isProvenHost(local, "127.0.0.1", reason));
  EXPECT_FALSE(isProvenHost(local, "192.0.2.7", reason));
  EXPECT_EQ(reason, "the certificate of 192.0.2.7 (backup1) is for localhost");
  // The resolver has another opinion, and is not asked.
  writeText(m_files / "etc/tq.conf", "HOST_ADDRESS.backup1 = 127.0.0.1\n");
  reloadConfiguration();
  EXPECT_FALSE(isProvenHost(local, "127.0.0.1", reason));
  EXPECT_EQ(reason, "the certificate of 127.0.0.1 (backup1) is for localhost");
  wish.names = "DNS:127.0.0.2.";
  EXPECT_FALSE(isProvenHost(issued(wish), "127.0.0.2", reason)) << "an address is no name";
}

TEST_F(TlsContextTest, aCertificateThatEndsIsToldOnceADayFromThirtyDaysAhead)
{
  setenv("TESSARINE_ROOT", m_files.path().c_str(), 1);
  std::filesystem::create_directories(m_files / "etc");
  writeText(m_files / "etc/tq.conf",
            "CLIENT_NAME = localhost\n" + tlsLines("only", m_files.path(), "host"));
  reloadConfiguration();
  std::string error;
  ASSERT_TRUE(setUpTls(error)) << error;
  std::time_t const end = currentTls()->certificate().end();
  constexpr std::time_t DAY_LONG = 86400;
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
