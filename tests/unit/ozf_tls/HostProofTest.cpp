#include "ozf/tls/HostProof.h"

#include "tests/support/NoHost.h"
#include "tests/unit/ozf_tls/IssuedCertificates.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using testing::IsEmpty;

namespace
{

class HostProofTest : public IssuedCertificates
{
protected:
  // Why it is not; empty where it is the host's.
  static std::string whyNot(Certificate const& certificate, std::string const& host)
  {
    std::string reason;
    return isProvenHost(certificate, host, reason) ? std::string() : reason;
  }
};

} // namespace

TEST_F(HostProofTest, aNameIsToStandInTheCertificate)
{
  configure("HOST_ADDRESS.backup1 = 127.0.0.1\nHOST_ADDRESS.localhost = 127.0.0.1\n");
  Certificate const backup1 = named("DNS:backup1");
  EXPECT_THAT(whyNot(backup1, "backup1"), IsEmpty());
  EXPECT_EQ(whyNot(backup1, "backup2"), "the certificate of backup2 is for backup1");
  EXPECT_EQ(whyNot(backup1, "localhost"), "the certificate of localhost is for backup1")
      << "that both have one address makes them no one host by name";
}

TEST_F(HostProofTest, anAddressMayStandInTheCertificate)
{
  configure("HOST_ADDRESS.backup2 = 192.0.2.7\n");
  EXPECT_THAT(whyNot(named("IP:192.0.2.7"), "192.0.2.7"), IsEmpty());
  EXPECT_THAT(whyNot(named("IP:2001:db8::7"), "2001:DB8:0::7"), IsEmpty());
  EXPECT_EQ(whyNot(named("IP:192.0.2.8"), "192.0.2.7"),
            "the certificate of 192.0.2.7 (backup2) is for 192.0.2.8");
}

TEST_F(HostProofTest, anAddressIsProvenByAnyNameThatIsGivenThatAddress)
{
  configure("HOST_ADDRESS.backup1 = 192.0.2.7, 2001:db8::7\n"
            "HOST_ADDRESS.backup1.example.net = 192.0.2.9 192.0.2.7\n"
            "HOST_ADDRESS.web1 = 192.0.2.8\n");
  Certificate const backup1 = named("DNS:backup1");
  EXPECT_THAT(whyNot(backup1, "192.0.2.7"), IsEmpty());
  EXPECT_THAT(whyNot(backup1, "2001:db8::7"), IsEmpty());
  EXPECT_EQ(whyNot(backup1, "192.0.2.8"), "the certificate of 192.0.2.8 (web1) is for backup1");
  EXPECT_EQ(whyNot(backup1, "192.0.2.9"),
            "the certificate of 192.0.2.9 (backup1.example.net) is for backup1");
  Certificate const whole = named("DNS:backup1.example.net");
  EXPECT_THAT(whyNot(whole, "192.0.2.7"), IsEmpty());
  EXPECT_EQ(whyNot(named("DNS:web1"), "192.0.2.7"),
            "the certificate of 192.0.2.7 (backup1, backup1.example.net) is for web1");
}

TEST_F(HostProofTest, theResolverIsAskedOnlyOfAnAddressThatIsGivenToNobody)
{
  Certificate const local = named("DNS:localhost");
  configure("HOST_ADDRESS.backup1 = 192.0.2.7\n");
  EXPECT_THAT(whyNot(local, "127.0.0.1"), IsEmpty());
  EXPECT_EQ(whyNot(local, "192.0.2.7"), "the certificate of 192.0.2.7 (backup1) is for localhost");
  // It has another opinion.
  configure("HOST_ADDRESS.backup1 = 192.0.2.7, 127.0.0.1\n");
  EXPECT_EQ(whyNot(local, "127.0.0.1"), "the certificate of 127.0.0.1 (backup1) is for localhost");
}

TEST_F(HostProofTest, theResolverIsAskedOfNoMoreThanFourNamesAndOfHostsAlone)
{
  configure("");
  // A name server is asked once, about the last name, and may not be there.
  setenv("RES_OPTIONS", "timeout:1 attempts:1", 1);
  std::string const none = "DNS:" + NO_HOST + ",";
  EXPECT_THAT(whyNot(named(none + none + none + "DNS:localhost"), "127.0.0.1"), IsEmpty());
  EXPECT_THAT(whyNot(named(none + none + none + none + "DNS:localhost"), "127.0.0.1"),
              testing::StartsWith("the certificate of 127.0.0.1 is for xxx"));
  // What cannot be asked for is not counted.
  EXPECT_THAT(whyNot(named("IP:192.0.2.1,DNS:*.example.net,IP:192.0.2.2,DNS:192.0.2.3,"
                           "DNS:localhost"),
                     "127.0.0.1"),
              IsEmpty());
  EXPECT_EQ(whyNot(named("DNS:127.0.0.2"), "127.0.0.2"),
            "the certificate of 127.0.0.2 is for 127.0.0.2")
      << "written as a name it is no address";
  EXPECT_EQ(whyNot(named("DNS:127.0.0.2."), "127.0.0.2"),
            "the certificate of 127.0.0.2 is for 127.0.0.2.");
}
