#include "ozf/config/PeerList.h"

#include "tests/support/ConfiguredHost.h"
#include "tests/support/NoHost.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

using Names = std::vector<std::string>;

class PeerListTest : public ConfiguredHost
{
protected:
  static bool holds(Names const& lines, std::string const& address, Names const& names = {},
                    std::string const& reached = "192.0.2.1")
  {
    std::string mistake;
    auto const list = PeerList::parse(lines, mistake);
    EXPECT_TRUE(list) << mistake;
    return list && list->holds(Caller(address, reached, names));
  }
};

} // namespace

TEST_F(PeerListTest, withoutLinesItHoldsEverybody)
{
  EXPECT_TRUE(PeerList().holds(Caller("192.0.2.7", "192.0.2.1", {})));
  EXPECT_EQ(PeerList().text(), "any");
}

TEST_F(PeerListTest, networksHoldTheirAddressesToTheBit)
{
  EXPECT_TRUE(holds({"10.0.0.0/8"}, "10.255.0.1"));
  EXPECT_FALSE(holds({"10.0.0.0/8"}, "11.0.0.1"));
  EXPECT_TRUE(holds({"192.0.2.128/25"}, "192.0.2.128"));
  EXPECT_FALSE(holds({"192.0.2.128/25"}, "192.0.2.127"));
  EXPECT_TRUE(holds({"192.0.2.4/30"}, "192.0.2.7"));
  EXPECT_FALSE(holds({"192.0.2.4/30"}, "192.0.2.8"));
  EXPECT_TRUE(holds({"192.0.2.7/32"}, "192.0.2.7"));
  EXPECT_TRUE(holds({"2001:db8::/33"}, "2001:db8:7fff::1"));
  EXPECT_FALSE(holds({"2001:db8::/33"}, "2001:db8:8000::1"));
  EXPECT_TRUE(holds({"::1/128"}, "::1"));
  EXPECT_FALSE(holds({"::1/128"}, "::2"));
}

TEST_F(PeerListTest, aNetworkOfOneFamilyHoldsNoneOfTheOther)
{
  EXPECT_TRUE(holds({"0.0.0.0/0"}, "192.0.2.7"));
  EXPECT_FALSE(holds({"0.0.0.0/0"}, "2001:db8::1"));
  EXPECT_TRUE(holds({"::/0"}, "2001:db8::1"));
  EXPECT_FALSE(holds({"::/0"}, "192.0.2.7"));
}

TEST_F(PeerListTest, anAddressHoldsItselfInWhateverForm)
{
  EXPECT_TRUE(holds({"192.0.2.7"}, "192.0.2.7"));
  EXPECT_TRUE(holds({"192.0.2.7"}, "::ffff:192.0.2.7"));
  EXPECT_FALSE(holds({"192.0.2.7"}, "192.0.2.70"));
  EXPECT_TRUE(holds({"2001:db8:0::1"}, "2001:db8::1"));
  EXPECT_FALSE(holds({"192.0.2.7"}, "nonsense"));
}

TEST_F(PeerListTest, patternsAreOfTheNamesOfCertificatesAlone)
{
  EXPECT_TRUE(holds({"*.example.net"}, "192.0.2.7", {"x", "Web1.EXAMPLE.net"}));
  EXPECT_FALSE(holds({"*.example.net"}, "192.0.2.7", {"web1.example.org"}));
  EXPECT_FALSE(holds({"*.example.net"}, "192.0.2.7"));
  EXPECT_TRUE(holds({"web1"}, "192.0.2.7", {"web1"}));
  EXPECT_FALSE(holds({"web1"}, "192.0.2.7", {"web10"}));
  EXPECT_TRUE(holds({"*"}, "192.0.2.7", {"whoever"}));
  EXPECT_FALSE(holds({"*"}, "192.0.2.7")) << "it has proven nothing";
  EXPECT_FALSE(holds({"*.example.net"}, "192.0.2.7", {std::string("evil\0.example.net", 17)}));
  EXPECT_FALSE(holds({"web1.example.net"}, "192.0.2.7", {"*.example.net"}))
      << "the pattern is the list's, not the certificate's";
}

TEST_F(PeerListTest, theWordsHoldEverybodyNobodyAndThisHost)
{
  configure("ORB_BIND = 192.0.2.1\n");
  EXPECT_TRUE(holds({"any"}, "192.0.2.7"));
  EXPECT_TRUE(holds({"ANY"}, "192.0.2.7"));
  EXPECT_FALSE(holds({"none"}, "127.0.0.1"));
  EXPECT_TRUE(holds({"local"}, "127.0.0.1"));
  EXPECT_TRUE(holds({"local"}, "::1"));
  EXPECT_TRUE(holds({"local"}, "192.0.2.1"));
  EXPECT_TRUE(holds({"local"}, "192.0.2.9", {}, "192.0.2.9")) << "it is the address that it calls";
  EXPECT_FALSE(holds({"local"}, "192.0.2.7"));
  EXPECT_FALSE(holds({"local"}, "127.0.0.2")) << "ORB_BIND may give it to another host";
  configure("");
  EXPECT_TRUE(holds({"local"}, "127.0.0.2"));
  EXPECT_FALSE(holds({"local"}, "192.0.2.7"));
}

TEST_F(PeerListTest, theMasterIsTheHostOfServerByNameAndByAddress)
{
  configure("SERVER = backup1.example.net\nHOST_ADDRESS.backup1.example.net = 192.0.2.10\n");
  EXPECT_TRUE(holds({"master"}, "192.0.2.10"));
  EXPECT_FALSE(holds({"master"}, "192.0.2.11"));
  EXPECT_TRUE(holds({"master"}, "192.0.2.11", {"BACKUP1.example.net"})) << "another of its own";
  EXPECT_FALSE(holds({"master"}, "192.0.2.11", {"backup2.example.net"}));
  configure("SERVER = backup1\nHOST_ADDRESS.backup1 = 192.0.2.10, 2001:db8::10\n");
  EXPECT_TRUE(holds({"master"}, "192.0.2.10"));
  EXPECT_TRUE(holds({"master"}, "2001:db8::10"));
  EXPECT_FALSE(holds({"master"}, "2001:db8::11"));
  configure("SERVER = 192.0.2.12\n");
  EXPECT_TRUE(holds({"master"}, "192.0.2.12"));
  EXPECT_TRUE(holds({"master"}, "192.0.2.13", {"192.0.2.12"}));
  configure("");
  EXPECT_FALSE(holds({"master"}, "192.0.2.12"));
}

TEST_F(PeerListTest, entriesStandInOneLineOrInSeveral)
{
  Names const lines{"10.0.0.0/8, 192.0.2.7\tweb*", "local"};
  EXPECT_TRUE(holds(lines, "10.1.1.1"));
  EXPECT_TRUE(holds(lines, "192.0.2.7"));
  EXPECT_TRUE(holds(lines, "192.0.2.8", {"web7"}));
  EXPECT_TRUE(holds(lines, "127.0.0.1"));
  EXPECT_FALSE(holds(lines, "192.0.2.8"));
  std::string mistake;
  EXPECT_EQ(PeerList::parse(lines, mistake)->text(), "10.0.0.0/8, 192.0.2.7, web*, local");
  auto const text = PeerList::parse({Names(100, "192.0.2.7")}, mistake)->text();
  EXPECT_LT(text.size(), 210U);
  EXPECT_THAT(text, testing::EndsWith("192.0.2.7, ..."));
}

TEST_F(PeerListTest, whatIsNoEntryIsNamed)
{
  for (char const* entry : {"10.0.0.0/33", "10.0.0.0/", "10.0.0/8", "/8", "::/129", "10.0.0.0/-1",
                            "10.0.0", "300.1.1.1", "10.0.0.*", "fe80::1%eth0", "fe80::%eth0/10",
                            "web1!", "host:27511", "web1;web2", "::ffff:10.0.0.0/104"})
  {
    EXPECT_EQ(PeerList::mistakeIn(std::string("local, ") + entry), '"' + std::string(entry) + '"');
  }
  EXPECT_THAT(PeerList::mistakeIn("10.0.0.1/8"), HasSubstr("\"10.0.0.1/8\", an address with bits"));
  EXPECT_THAT(PeerList::mistakeIn("2001:db8::1/32"), HasSubstr("\"2001:db8::1/32\", an address"));
  EXPECT_EQ(PeerList::mistakeIn(" , "), "a list without an entry");
  EXPECT_THAT(PeerList::mistakeIn("any"), IsEmpty());
}

TEST_F(PeerListTest, theConfigurationsCheckNamesKeyAndEntry)
{
  writeText(file(), "ALLOW_READ = any\nALLOW_WRITE = 10.0.0.0/8, ten\nALLOW_WRITE = web*\n"
                    "ALLOW_CONTROL = local, 10.0.0/8\nALLOW_WRITE_AS = 10.0.0.1/8\n");
  std::vector<std::string> problems;
  for (auto const& problem : Configuration::read(file()).check())
    problems.push_back(problem.text().substr(file().size()));
  EXPECT_THAT(problems, testing::ElementsAre(
                            ":4: \"ALLOW_CONTROL\" has \"10.0.0/8\"; accepted: " +
                                std::string(PEER_LIST_ENTRIES),
                            HasSubstr(":5: \"ALLOW_WRITE_AS\" has \"10.0.0.1/8\", an address")));
}

TEST_F(PeerListTest, aCertificateProvesTheHostsThatItNames)
{
  Names const names{"web1.example.net.", "*.db.example.net", "192.0.2.7", "*"};
  Caller const caller("192.0.2.99", "192.0.2.1", names);
  EXPECT_TRUE(caller.isProvenToBe("WEB1.example.net"));
  EXPECT_TRUE(caller.isProvenToBe("web1.example.net."));
  EXPECT_TRUE(caller.isProvenToBe("a.db.example.net"));
  EXPECT_TRUE(caller.isProvenToBe("192.0.2.7"));
  for (char const* other : {"", "web1", "web2.example.net", "b.a.db.example.net", ".db.example.net",
                            "db.example.net", "192.0.2.99", "192.0.2.8"})
    EXPECT_FALSE(caller.isProvenToBe(other)) << other;
}

TEST_F(PeerListTest, aCallerIsTheHostOfItsAddressToo)
{
  configure("HOST_ADDRESS.web1 = 192.0.2.7\n");
  Names const none;
  EXPECT_TRUE(Caller("192.0.2.7", "", none).isHost("WEB1"));
  EXPECT_FALSE(Caller("192.0.2.8", "", none).isHost("web1"));
  EXPECT_FALSE(Caller("192.0.2.8", "", none).isHost(""));
  EXPECT_FALSE(Caller("192.0.2.8", "", none).isHost(NO_HOST));
}
