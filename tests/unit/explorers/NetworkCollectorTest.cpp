#include "explorers/NetworkCollector.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <map>
#include <net/if.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using ExplorerTesting::fixture;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

std::vector<InterfaceAddress> noAddresses() { return {}; }

std::map<std::string, NetworkInterface> byName(Network const& network)
{
  std::map<std::string, NetworkInterface> interfaces;
  for (auto const& found : network.interfaces)
    EXPECT_TRUE(interfaces.emplace(found.name, found).second) << found.name;
  return interfaces;
}

} // namespace

TEST(NetworkCollector, readsTheInterfacesOfARecordedHost)
{
  auto const network =
      collectNetwork(fixture("server"),
                     []
                     {
                       return std::vector<InterfaceAddress>{{"lo", "127.0.0.1/8"},
                                                            {"bond0", "192.0.2.9/24"},
                                                            {"bond0", "192.0.2.10/24"},
                                                            {"gone0", "10.9.9.9/32"},
                                                            {"bond0", "2001:db8::9/64"}};
                     });
  auto interfaces = byName(network);
  EXPECT_EQ(7U, interfaces.size());

  auto const& bond = interfaces["bond0"];
  EXPECT_EQ("bond", bond.kind);
  EXPECT_EQ("up", bond.state);
  EXPECT_EQ("02:00:5e:00:53:01", bond.mac);
  EXPECT_EQ(9000U, bond.mtu);
  EXPECT_EQ(10000U, bond.speed);
  EXPECT_THAT(bond.addresses, ElementsAre("192.0.2.9/24", "192.0.2.10/24", "2001:db8::9/64"));
  EXPECT_THAT(bond.gateways, ElementsAre("192.0.2.1", "fe80::1", "192.0.2.254"));
  EXPECT_EQ("", bond.master);

  EXPECT_EQ("ethernet", interfaces["eno1"].kind);
  EXPECT_EQ("bond0", interfaces["eno1"].master);
  EXPECT_EQ("down", interfaces["eno2"].state);
  EXPECT_FALSE(interfaces["eno2"].speed);
  EXPECT_THAT(interfaces["eno2"].gateways, IsEmpty());
  EXPECT_EQ("loopback", interfaces["lo"].kind);
  EXPECT_EQ("", interfaces["lo"].mac);
  EXPECT_EQ("tunnel", interfaces["tun0"].kind + (interfaces["tun0"].speed ? "?" : ""));
  EXPECT_EQ("virtual", interfaces["veth3"].kind);
  EXPECT_THAT(interfaces["gone0"].addresses, ElementsAre("10.9.9.9/32"));
}

TEST(NetworkCollector, aResolverOnTheHostIsAskedWhomItAsks)
{
  auto const names = collectNetwork(fixture("server"), noAddresses).names;
  EXPECT_THAT(names.servers, ElementsAre("192.0.2.53", "2001:db8::53"));
  EXPECT_THAT(names.domains, ElementsAre("example.net", "lab.example.net"));
}

TEST(NetworkCollector, nameServersAreThoseOfTheFileElsewhere)
{
  TempDir const dir;
  std::filesystem::create_directories(dir / "etc");
  writeText(dir / "etc/resolv.conf", "#nameserver 10.0.0.9\n  nameserver 10.0.0.1 # first\n"
                                     "domain old.example\nnameserver fe80::1%eth0\nsearch a b\n");
  auto const names = collectNetwork(dir.path(), noAddresses).names;
  EXPECT_THAT(names.servers, ElementsAre("10.0.0.1", "fe80::1%eth0"));
  EXPECT_THAT(names.domains, ElementsAre("a", "b"));
}

TEST(NetworkCollector, anEmptyTreeGivesNoInterfaces)
{
  TempDir const dir;
  LogCapture const log(1);
  auto const network = collectNetwork(dir.path(), noAddresses);
  EXPECT_THAT(network.interfaces, IsEmpty());
  EXPECT_THAT(network.names.servers, IsEmpty());
  EXPECT_EQ("", log.text());
}

TEST(NetworkCollector, damagedFilesGiveTheFactsThatAreWhole)
{
  auto const network = collectNetwork(fixture("damaged"), noAddresses);
  auto interfaces = byName(network);
  EXPECT_EQ(1U, interfaces.size());
  EXPECT_FALSE(interfaces["eth0"].mtu);
  EXPECT_FALSE(interfaces["eth0"].speed);
  EXPECT_EQ("", interfaces["eth0"].mac);
  EXPECT_THAT(interfaces["eth0"].gateways, IsEmpty());
  EXPECT_THAT(network.names.servers, ElementsAre("\x1b]0;<&>\xff\x07"));
}

TEST(NetworkCollector, thisHostHasALoopbackInterface)
{
  auto interfaces = byName(collectNetwork("/"));
  ASSERT_EQ(1U, interfaces.count("lo"));
  EXPECT_EQ("loopback", interfaces["lo"].kind);
  EXPECT_THAT(interfaces["lo"].addresses, Contains("127.0.0.1/8"));
  std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)> const names(if_nameindex(),
                                                                                if_freenameindex);
  ASSERT_TRUE(names);
  for (auto const* entry = names.get(); entry->if_index != 0; ++entry)
    EXPECT_EQ(1U, interfaces.count(entry->if_name)) << entry->if_name;
}
