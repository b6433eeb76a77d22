#include "tests/unit/ozf_tls/IssuedCertificates.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::IsEmpty;
using tqtest::Wish;

namespace
{

class CertificateTest : public IssuedCertificates
{
};

} // namespace

TEST_F(CertificateTest, aCertificateNamesItsAlternativeNamesAndFailingThoseItsCommonName)
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
TEST_F(CertificateTest, theCommonNameCountsForNothingBesideAnAlternativeNameOfAnyKind)
{
  Wish wish;
  wish.commonName = "common";
  wish.names = "IP:192.0.2.7";
  Certificate const address = issued(wish);
  EXPECT_THAT(address.names(), ElementsAre("192.0.2.7"));
  EXPECT_FALSE(address.names("common"));
  EXPECT_TRUE(address.names("192.0.2.7"));
}

TEST_F(CertificateTest, aDomainIsNoHost)
{
  Wish wish;
  wish.names = "DNS:web1.example.net";
  EXPECT_FALSE(issued(wish).names(".example.net"));
  EXPECT_FALSE(issued(wish).names("."));
}

TEST_F(CertificateTest, aWildcardStandsForOneWholeLabelOfADomain)
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

TEST_F(CertificateTest, aNameWithANulIsNotWhatComesBeforeIt)
{
  Wish wish;
  wish.hostName = std::string("web1\0.evil.example", 18);
  Certificate const tricky = issued(wish);
  EXPECT_FALSE(tricky.names("web1"));
  EXPECT_EQ(tricky.shownNames(), "web1%00.evil.example");
}

TEST_F(CertificateTest, anAddressOfVersion6IsComparedInAnyForm)
{
  Wish wish;
  wish.names = "IP:2001:db8::1,DNS:2001-db8--2.example";
  Certificate const host = issued(wish);
  EXPECT_TRUE(host.names("2001:DB8:0:0::1"));
  EXPECT_FALSE(host.names("2001:db8::2"));
  EXPECT_THAT(host.names(), ElementsAre("2001:db8::1", "2001-db8--2.example"));
}

TEST_F(CertificateTest, aNameWithControlsIsShownWithoutThem)
{
  Wish wish;
  wish.names.clear();
  wish.commonName = "web\x1b[2Jx";
  EXPECT_EQ(issued(wish).shownNames(), "web%1B[2Jx");
}

TEST_F(CertificateTest, ofManyAndLongNamesTheBeginningIsShown)
{
  std::string names = "DNS:host0";
  for (int i = 1; i < 10; ++i)
    names += ",DNS:host" + std::to_string(i);
  EXPECT_EQ(named(names).shownNames(),
            "host0, host1, host2, host3, host4, host5, host6, host7 and 2 more");
  EXPECT_EQ(named("DNS:" + std::string(150, 'x')).shownNames(), std::string(100, 'x'));
}

TEST_F(CertificateTest, oneWithoutAnyNameIsForNobody)
{
  Wish wish;
  wish.names = "email:admin@example.net";
  wish.commonName.clear();
  Certificate const nobody = issued(wish);
  EXPECT_THAT(nobody.names(), IsEmpty());
  EXPECT_EQ(nobody.shownNames(), "nobody");
  EXPECT_FALSE(nobody.names("admin@example.net"));
}

TEST_F(CertificateTest, itsTimesAreThoseOfTheAuthority)
{
  Wish wish;
  wish.begin = -7200;
  wish.end = 86400;
  std::time_t const now = std::time(nullptr);
  Certificate const host = issued(wish);
  EXPECT_NEAR(static_cast<double>(host.begin()), static_cast<double>(now - 7200), 30);
  EXPECT_NEAR(static_cast<double>(host.end()), static_cast<double>(now + 86400), 30);
  EXPECT_EQ(shownTime(1803902400), "2027-03-01 12:00 UTC");
}

TEST_F(CertificateTest, itServesAndCallsAsItsUsageSays)
{
  struct
  {
    char const* usage;
    bool serves;
    bool calls;
  } const rows[] = {{"serverAuth", true, false},
                    {"clientAuth", false, true},
                    {"serverAuth,clientAuth", true, true},
                    {"codeSigning", false, false},
                    {"", true, true}};
  for (auto const& row : rows)
  {
    Wish wish;
    wish.usage = row.usage;
    EXPECT_EQ(issued(wish).mayServe(), row.serves) << row.usage;
    EXPECT_EQ(issued(wish).mayCall(), row.calls) << row.usage;
  }
}
