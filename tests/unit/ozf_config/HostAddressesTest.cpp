#include "ozf/config/HostAddresses.h"

#include "tests/support/ConfiguredHost.h"
#include "tests/support/NoHost.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

IpAddress ip(char const* text) { return *IpAddress::fromText(text); }

// The resolver of this program knows the hosts of TQ_HOSTS besides (CallFrom.cpp).
class HostAddressesTest : public ConfiguredHost
{
protected:
  ~HostAddressesTest() override { unsetenv("TQ_HOSTS"); }

  static void letResolverKnow(char const* hosts) { setenv("TQ_HOSTS", hosts, 1); }
};

} // namespace

TEST_F(HostAddressesTest, aHostHasAllAddressesOfTheResolverInItsOrder)
{
  letResolverKnow("big=192.0.2.7,2001:db8::7,192.0.2.8");
  std::string reason;
  EXPECT_THAT(resolveHost("big", reason),
              ElementsAre(ip("192.0.2.7"), ip("2001:db8::7"), ip("192.0.2.8")));
  EXPECT_THAT(reason, IsEmpty());
  EXPECT_NE(lookUpHost("big", reason), nullptr);
}

TEST_F(HostAddressesTest, anAddressStandsForItselfWhateverTheResolverSays)
{
  letResolverKnow("192.0.2.7=192.0.2.8");
  std::string reason;
  EXPECT_THAT(resolveHost("192.0.2.7", reason), ElementsAre(ip("192.0.2.7")));
}

TEST_F(HostAddressesTest, whyThereIsNoAddressIsTold)
{
  std::string reason;
  EXPECT_THAT(resolveHost(NO_HOST, reason), IsEmpty());
  EXPECT_THAT(reason, Not(IsEmpty()));
  reason.clear();
  EXPECT_EQ(lookUpHost(NO_HOST, reason), nullptr);
  EXPECT_THAT(reason, Not(IsEmpty()));
}

TEST_F(HostAddressesTest, aHostWithHostAddressHasThoseAndNoOthers)
{
  letResolverKnow("web1=192.0.2.99");
  configure("HOST_ADDRESS.web1 = 192.0.2.7, 2001:db8::7\n");
  EXPECT_TRUE(isAddressOf("web1", ip("192.0.2.7")));
  EXPECT_TRUE(isAddressOf("WEB1.", ip("::ffff:192.0.2.7")));
  EXPECT_TRUE(isAddressOf("web1", ip("2001:db8:0::7")));
  EXPECT_FALSE(isAddressOf("web1", ip("192.0.2.99")));
  EXPECT_TRUE(isAddressOf("192.0.2.7", ip("192.0.2.7")));
  EXPECT_FALSE(isAddressOf("192.0.2.7", ip("192.0.2.8")));
}

TEST_F(HostAddressesTest, aHostWithoutHostAddressHasThoseOfTheResolver)
{
  letResolverKnow("web2=192.0.2.99,192.0.2.98");
  configure("HOST_ADDRESS.web1 = 192.0.2.7\n");
  EXPECT_TRUE(isAddressOf("web2", ip("192.0.2.99")));
  EXPECT_TRUE(isAddressOf("web2", ip("192.0.2.98")));
  EXPECT_FALSE(isAddressOf("web2", ip("192.0.2.7")));
  EXPECT_FALSE(isAddressOf(NO_HOST, ip("192.0.2.7")));
}

TEST_F(HostAddressesTest, anAddressHasTheNamesThatItIsGiven)
{
  configure("HOST_ADDRESS.backup1 = 192.0.2.7\nHOST_ADDRESS.backup2 = 192.0.2.8\n"
            "HOST_ADDRESS.both = 2001:db8::7, 192.0.2.7\n");
  EXPECT_THAT(namesOfAddress(ip("192.0.2.7")), ElementsAre("backup1", "both"));
  EXPECT_THAT(namesOfAddress(ip("2001:DB8::7")), ElementsAre("both"));
  EXPECT_THAT(namesOfAddress(ip("192.0.2.9")), IsEmpty());
}
