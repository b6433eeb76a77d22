// What the hosts of a fleet write to the master.

#include "tests/system/fleet/FleetForms.h"

#include "discovery/DiscData.h"

namespace
{

using namespace tqtest;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

class FleetWriteTest : public FleetTest
{
protected:
  // Who wrote what the master has of the zone.
  std::vector<std::string> zone()
  {
    return makersIn(master().tqdiscoctl({"show", "shared", "zone", "--json"}));
  }

  // How often the other's higher priority stopped it.
  std::size_t refusals()
  {
    return occurrences(host(Fleet::WEB).log(), "Failed to open the collection data: " +
                                                   std::to_string(svc::DS_DATA_EXISTS));
  }
};

TEST_P(FleetWriteTest, ofTwoHostsTheHigherPriorityStaysUntilItExpires)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(master().start());
  ASSERT_TRUE(startAndAwait(Fleet::WEB, {{"TQ_FIXTURE_ZONE", "3"}}));
  ASSERT_TRUE(eventually([&] { return zone() == Words{Fleet::WEB}; }, LONG));
  // It holds for a quarter more than the interval.
  ASSERT_TRUE(
      startAndAwait(Fleet::LAST, {{"TQ_FIXTURE_ZONE", "9"}, {"TQ_FIXTURE_ZONE_INTERVAL", "10"}}));
  ASSERT_TRUE(eventually([&] { return zone() == Words{Fleet::LAST}; }, LONG));

  ASSERT_TRUE(eventually([&] { return refusals() >= 1; }, LONG));
  EXPECT_THAT(zone(), ElementsAre(Fleet::LAST));
  EXPECT_EQ(host(Fleet::LAST).stop(), 0);
  EXPECT_TRUE(eventually([&] { return zone() == Words{Fleet::WEB}; }, LONG));
}

TEST_P(FleetWriteTest, whatIsNotSaidAgainExpires)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(master().start());
  ASSERT_TRUE(startAndAwait(Fleet::WEB));
  std::string const path = master().database() + "/2 paced 95web.xml";
  ASSERT_TRUE(eventually([&] { return known(Fleet::WEB, "paced"); }, LONG));
  ASSERT_TRUE(fs::exists(path));
  EXPECT_EQ(host(Fleet::WEB).stop(), 0);
  EXPECT_TRUE(eventually([&] { return !known(Fleet::WEB, "paced"); }, LONG));
  EXPECT_FALSE(fs::exists(path)) << "an expired discovery is deleted when it is met";
  EXPECT_TRUE(known(Fleet::WEB, "host"));
}

// On loopback, where no link can be cut, the client itself is gone.
TEST_P(FleetWriteTest, aClientCutOffInTheMiddleLeavesNoHalfDiscovery)
{
  if (!m_fleet)
    return;
  FleetHost& client = host(Fleet::WEB);
  writeText(client.note("hold"), "");
  ASSERT_TRUE(master().start());
  client.launch();
  ASSERT_TRUE(eventually([&] { return fs::exists(client.note("half")); }, LONG));
  EXPECT_TRUE(eventually([&] { return master().temporaryFiles() == 1; }, LONG));
  bool const cut = client.setLink(false);
  if (!cut)
    client.kill();
  fs::remove(client.note("hold"));
  if (cut)
  {
    ASSERT_TRUE(client.awaitLog("Caught CORBA Exception during remote write"));
    EXPECT_TRUE(client.running());
  }

  EXPECT_FALSE(known(Fleet::WEB, "paced"));
  EXPECT_EQ(master().tqdiscoctl({"db", "verify"}).exitCode, 0);
  EXPECT_FALSE(fs::exists(master().database() + "/2 paced 95web.dat"));

  // It says it again.
  if (cut)
    client.setLink(true);
  else
    client.launch();
  EXPECT_TRUE(eventually([&] { return known(Fleet::WEB, "paced"); }, LONG));
  Outcome const shown = master().tqdiscoctl({"show", Fleet::WEB, "paced", "--json"});
  EXPECT_THAT(makersIn(shown), ElementsAre(Fleet::WEB)) << shown.errors;
}

TQ_FLEET_FORMS(FleetWriteTest);

} // namespace
