#include "ozf/config/HostRole.h"
#include "tests/support/ConfiguredHost.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <cstring>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;

namespace
{

class HostRoleTest : public ConfiguredHost
{
protected:
  bool isMaster(std::string const& text)
  {
    configure(text);
    return IsRunningOnMasterServer() == 0;
  }
};

// An address of this machine: one that is not loopback when it has such.
std::string machineAddress()
{
  std::string address = "127.0.0.1";
  ifaddrs* all = nullptr;
  EXPECT_EQ(getifaddrs(&all), 0);
  for (ifaddrs const* one = all; one != nullptr; one = one->ifa_next)
    if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET)
    {
      char text[INET_ADDRSTRLEN] = {};
      sockaddr_in ipv4 = {};
      std::memcpy(&ipv4, one->ifa_addr, sizeof ipv4);
      inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text);
      if (std::string(text).rfind("127.", 0) != 0)
        address = text;
    }
  freeifaddrs(all);
  return address;
}

TEST_F(HostRoleTest, WithoutServerNoHostIsMaster)
{
  EXPECT_FALSE(isMaster("CLIENT_NAME = a\n"));
  EXPECT_FALSE(isMaster("CLIENT_NAME = a\nSERVER =\n"));
}

TEST_F(HostRoleTest, TheHostOfServersNameIsMasterInAnyCaseWithOrWithoutFinalDot)
{
  EXPECT_TRUE(isMaster("CLIENT_NAME = alpha\nSERVER = alpha\n"));
  EXPECT_TRUE(isMaster("CLIENT_NAME = Alpha.Example.COM\nSERVER = aLPHA.example.com.\n"));
}

TEST_F(HostRoleTest, AShortNameStandsForTheLongOne)
{
  EXPECT_TRUE(isMaster("CLIENT_NAME = alpha\nSERVER = alpha.example.com\n"));
  EXPECT_TRUE(isMaster("CLIENT_NAME = alpha.example.com\nSERVER = ALPHA\n"));
}

// The addresses here keep the resolver out: 240.0.0.0/4 is reserved, so no machine has one.
TEST_F(HostRoleTest, NamesThatOnlyResembleAreOtherHosts)
{
  EXPECT_FALSE(isMaster("CLIENT_NAME = alpha.one.com\nSERVER = alpha.two.com\n"
                        "HOST_ADDRESS.alpha.two.com = 240.0.0.1\n"));
  EXPECT_FALSE(isMaster("CLIENT_NAME = alpha\nSERVER = alpha2\nHOST_ADDRESS.alpha2 = 240.0.0.1\n"));
  EXPECT_FALSE(isMaster("CLIENT_NAME = 240\nSERVER = 240.0.0.1\n"));
}

TEST_F(HostRoleTest, ShortAndLongNameWithTwoAddressesAreTwoHosts)
{
  EXPECT_FALSE(isMaster("CLIENT_NAME = alpha\nSERVER = alpha.example.com\n"
                        "HOST_ADDRESS.alpha = 240.0.0.1\n"
                        "HOST_ADDRESS.alpha.example.com = 240.0.0.2\n"));
  EXPECT_TRUE(isMaster("CLIENT_NAME = alpha\nSERVER = alpha.example.com\n"
                       "HOST_ADDRESS.alpha = 240.0.0.1\n"
                       "HOST_ADDRESS.alpha.example.com = 240.0.0.1\n"));
}

TEST_F(HostRoleTest, AnAddressOfTheMachineMakesItMaster)
{
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = " + machineAddress() + "\n"));
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = b\nHOST_ADDRESS.B = " + machineAddress() + "\n"));
  EXPECT_FALSE(isMaster("CLIENT_NAME = a\nSERVER = 240.0.0.1\n"));
}

TEST_F(HostRoleTest, LoopbackLeadsToTheMachineItselfWithoutOrbBind)
{
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = 127.9.8.7\n"));
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = ::1\n"));
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = localhost\n"));
}

TEST_F(HostRoleTest, WithOrbBindTheHostsAddressesAreExactlyThose)
{
  std::string const client = "CLIENT_NAME = a\nSERVER = b\nORB_BIND = 127.0.0.3\n";
  EXPECT_FALSE(isMaster(client + "HOST_ADDRESS.b = 127.0.0.2\n"));
  EXPECT_FALSE(isMaster(client + "HOST_ADDRESS.b = 127.0.0.1\n"));
  EXPECT_FALSE(isMaster(client + "HOST_ADDRESS.b = " + machineAddress() + "\n"));
  EXPECT_TRUE(isMaster(client + "HOST_ADDRESS.b = 127.0.0.3\n"));
  EXPECT_TRUE(isMaster(client + "ORB_BIND = 127.0.0.2\nHOST_ADDRESS.b = 127.0.0.2\n"));
}

TEST_F(HostRoleTest, ABoundWildcardStandsForAllInterfaces)
{
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = 127.0.0.2\nORB_BIND = 0.0.0.0\n"));
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = " + machineAddress() + "\nORB_BIND = ::\n"));
  EXPECT_FALSE(isMaster("CLIENT_NAME = a\nSERVER = 240.0.0.1\nORB_BIND = 0.0.0.0\n"));
}

TEST_F(HostRoleTest, TwoFormsOfOneAddressAreOneAddress)
{
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = ::ffff:127.0.0.2\nORB_BIND = 127.0.0.2\n"));
  EXPECT_TRUE(isMaster("CLIENT_NAME = a\nSERVER = 0:0::1\nORB_BIND = ::1\n"));
}

// A label of more than 63 bytes is refused before any server is asked.
TEST_F(HostRoleTest, AServerThatCannotBeResolvedIsAnotherHost)
{
  LogCapture const log;
  EXPECT_FALSE(isMaster("CLIENT_NAME = a\nSERVER = " + std::string(80, 'x') + ".example\n"));
  EXPECT_THAT(log.text(), testing::HasSubstr("Cannot resolve the master's name xxx"));
}

TEST_F(HostRoleTest, AWrongOrbBindIsPassedOver)
{
  EXPECT_FALSE(isMaster("CLIENT_NAME = a\nSERVER = 127.0.0.2\nORB_BIND = nonsense\n"));
}

TEST_F(HostRoleTest, HostAddressComesFromTheConfigurationElseIsTheName)
{
  configure("HOST_ADDRESS.Alpha = 127.0.0.9\nHOST_ADDRESS.empty =\n");
  EXPECT_THAT(getHostAddresses("alpha"), ElementsAre("127.0.0.9"));
  EXPECT_THAT(getHostAddresses("ALPHA."), ElementsAre("127.0.0.9"));
  EXPECT_THAT(getHostAddresses("beta"), ElementsAre("beta"));
  EXPECT_THAT(getHostAddresses("empty"), ElementsAre("empty"));
  EXPECT_THAT(getHostAddresses(""), ElementsAre(""));
}

TEST_F(HostRoleTest, AHostMayHaveSeveralAddressesWhichKeepTheirOrder)
{
  configure("HOST_ADDRESS.alpha = 192.0.2.9, 2001:db8::9\t127.0.0.9\nHOST_ADDRESS.beta = , \n");
  EXPECT_THAT(getHostAddresses("alpha"), ElementsAre("192.0.2.9", "2001:db8::9", "127.0.0.9"));
  EXPECT_THAT(getHostAddresses("beta"), ElementsAre("beta"));
}

TEST_F(HostRoleTest, AnyOfTheMastersAddressesMakesAHostMaster)
{
  std::string const bound = "CLIENT_NAME = a\nSERVER = b\nORB_BIND = 127.0.0.3\n";
  EXPECT_TRUE(isMaster(bound + "HOST_ADDRESS.b = 240.0.0.1, ::2, 127.0.0.3\n"));
  EXPECT_FALSE(isMaster(bound + "HOST_ADDRESS.b = 240.0.0.1, ::2, 127.0.0.4\n"));
}

TEST_F(HostRoleTest, ShortAndLongNameAreOneHostByOneAddressInCommon)
{
  std::string const names = "CLIENT_NAME = alpha\nSERVER = alpha.example.com\n"
                            "HOST_ADDRESS.alpha = 240.0.0.1, 240.0.0.2\n";
  EXPECT_TRUE(isMaster(names + "HOST_ADDRESS.alpha.example.com = 240.0.0.3, 240.0.0.2\n"));
  EXPECT_FALSE(isMaster(names + "HOST_ADDRESS.alpha.example.com = 240.0.0.3, 240.0.0.4\n"));
}

TEST_F(HostRoleTest, OwnNamesAreToldWithoutTheResolver)
{
  configure("CLIENT_NAME = web7.example.net\nORB_BIND = 192.0.2.7\n"
            "HOST_ADDRESS.seven = 192.0.2.7\nHOST_ADDRESS.eight = 192.0.2.8\n"
            "HOST_ADDRESS.both = 192.0.2.8, 192.0.2.7\n");
  for (char const* const own :
       {"web7.example.net", "WEB7.example.net.", "web7", "192.0.2.7", "seven", "both"})
    EXPECT_TRUE(isOwnHostName(own)) << own;
  // The last would be an address of this machine if it were looked up.
  for (char const* const other :
       {"web7.example.org", "web8", "192.0.2.8", "eight", "", "localhost"})
    EXPECT_FALSE(isOwnHostName(other)) << other;
}

TEST_F(HostRoleTest, ServicePortComesFromConfigurationThenServicesThenTheBuiltIn)
{
  configure("ORB_PORT.DiscoveryService = 4242\n");
  EXPECT_EQ(getServicePort("DiscoveryService"), 4242);
  EXPECT_EQ(getServicePort("no-such-service"), 0);
  EXPECT_EQ(getServicePort(""), 0);
  servent const* const ssh = getservbyname("ssh", "tcp");
  EXPECT_EQ(getServicePort("ssh"),
            ssh == nullptr ? 0 : ntohs(static_cast<unsigned short>(ssh->s_port)));
  configure("");
  EXPECT_EQ(getServicePort("DiscoveryService"), 27511);
}

TEST_F(HostRoleTest, AHostMayHaveItsServiceAtAPortOfItsOwn)
{
  configure("ORB_PORT.DiscoveryService = 4242\nHOST_PORT.Alpha = 4243\nHOST_PORT.beta = x\n");
  EXPECT_EQ(getServicePort("DiscoveryService", "alpha"), 4243);
  EXPECT_EQ(getServicePort("DiscoveryService", "ALPHA."), 4243);
  EXPECT_EQ(getServicePort("DiscoveryService", "gamma"), 4242);
  EXPECT_EQ(getServicePort("DiscoveryService"), 4242);
  EXPECT_EQ(getServicePort("no-such-service", "alpha"), 0);
  LogCapture const log;
  EXPECT_EQ(getServicePort("DiscoveryService", "beta"), 4242);
  EXPECT_TRUE(log.has(1, "getServicePort",
                      "HOST_PORT.beta is \"x\"; accepted: whole numbers from 1 to "
                      "65535"))
      << log.text();
}

TEST_F(HostRoleTest, APortThatIsNoneIsReportedAndPassedOver)
{
  configure("ORB_PORT.DiscoveryService = 70000\n");
  LogCapture const log;
  EXPECT_EQ(getServicePort("DiscoveryService"), 27511);
  EXPECT_TRUE(log.has(1, "getServicePort",
                      "ORB_PORT.DiscoveryService is \"70000\"; accepted: whole numbers from 1 to "
                      "65535"))
      << log.text();
}

} // namespace
