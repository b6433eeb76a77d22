#include "tools/MasterList.h"

#include "tests/support/ConfiguredHost.h"

#include <cmath>

namespace tqdiscoctl
{
namespace
{

using Names = std::vector<std::string>;

TEST(MasterListTest, placesAreSplitAtCommasAndNoneIsThereTwice)
{
  MasterList list;
  EXPECT_EQ(parseMasters("a, b:27512 ,[::1]:27512,A,::1", list), "");
  EXPECT_EQ(list.hosts, (Names{"a", "b", "::1"}));
  EXPECT_EQ(list.port, "27512");
  EXPECT_EQ(parseMasters("a", list), "");
  EXPECT_EQ(list.hosts, Names{"a"});
  EXPECT_EQ(list.port, "");
}

TEST(MasterListTest, whatIsNoListOfMastersIsNamed)
{
  MasterList list;
  for (char const* const text : {"", "a,", ",a", "a,b/c", "a,b:0", "a:70000", "[::1", "a:1,b:2"})
    EXPECT_NE(parseMasters(text, list), "") << text;
  std::string many = "m1";
  for (std::size_t i = 2; i <= MOST_MASTERS; ++i)
    many += ",m" + std::to_string(i);
  EXPECT_EQ(parseMasters(many, list), "");
  EXPECT_NE(parseMasters(many + ",one.more", list), "");
}

// Whoever sets hosts up may have computed these: they never change.
TEST(MasterListTest, eachHostHasTheMasterThatItAlwaysHad)
{
  Names const masters{"backup1.example.com", "backup2.example.com", "backup3.example.com"};
  for (auto const& [host, number, ofTwo] : {std::tuple{"web7.example.com", 2, "a"},
                                            {"db1.example.com", 1, "a"},
                                            {"mail", 1, "b"},
                                            {"4a", 3, "b"},
                                            {"192.0.2.7", 2, "b"},
                                            {"2001:db8::7", 1, "a"},
                                            {"gr\xc3\xb6\xc3\x9f"
                                             "e",
                                             2, "a"}})
  {
    EXPECT_EQ(masterOf(host, masters), "backup" + std::to_string(number) + ".example.com") << host;
    EXPECT_EQ(masterOf(host, {"a", "b"}), ofTwo) << host;
    EXPECT_EQ(masterOf(host, {"b", "a"}), ofTwo) << host;
  }
  EXPECT_EQ(masterOf("anything", {"only"}), "only");
}

TEST(MasterListTest, letterCaseAndADotAtTheEndMakeNoDifference)
{
  for (int i = 0; i < 100; ++i)
  {
    std::string const host = "Web" + std::to_string(i) + ".example.com";
    std::string const master = masterOf(host, {"b1.example", "b2.example"});
    EXPECT_EQ(masterOf("wEB" + std::to_string(i) + ".EXAMPLE.com.", {"b1.example", "b2.example"}),
              master);
    EXPECT_EQ(masterOf(host, {"B1.Example.", "B2.Example"}),
              master == "b1.example" ? "B1.Example." : "B2.Example");
  }
}

// Of all sequences of hosts these bounds, five times the standard deviation, hold for all but
// one in a million; the names are always the same.
TEST(MasterListTest, oneMoreMasterTakesItsShareAndMovesNoOtherHost)
{
  constexpr int HOSTS = 4000;
  Names masters{"backup1"};
  std::vector<std::string> before(HOSTS, "backup1");
  for (int count = 2; count <= 6; ++count)
  {
    std::string const added = "backup" + std::to_string(count);
    masters.push_back(added);
    int moved = 0;
    for (int i = 0; i < HOSTS; ++i)
    {
      std::string const& now = masterOf("host" + std::to_string(i) + ".example.com", masters);
      if (now == before[static_cast<std::size_t>(i)])
        continue;
      ++moved;
      EXPECT_EQ(now, added) << "a host went from one old master to another";
      before[static_cast<std::size_t>(i)] = now;
    }
    double const share = 1.0 / count;
    double const bound = 5 * std::sqrt(HOSTS * share * (1 - share));
    EXPECT_NEAR(moved, HOSTS * share, bound) << count;
  }
}

using ConfiguredMastersTest = ConfiguredHost;

TEST_F(ConfiguredMastersTest, theConfigurationHasThemInOneLineOrInSeveral)
{
  MasterList list;
  configure("SERVER = a\n");
  EXPECT_EQ(configuredMasters(list), "");
  EXPECT_TRUE(list.hosts.empty());
  configure("MASTERS = a, b\nMASTERS = c B\n");
  EXPECT_EQ(configuredMasters(list), "");
  EXPECT_EQ(list.hosts, (Names{"a", "b", "c"}));
}

} // namespace
} // namespace tqdiscoctl
