// How a fleet comes up.

#include "tests/system/fleet/FleetForms.h"

namespace
{

using namespace tqtest;
using nlohmann::json;

class FleetStartTest : public FleetTest
{
};

TEST_P(FleetStartTest, everyHostIsDiscoveredInItsRole)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(m_fleet->start());
  json const status = json::parse(master().tqdiscoctl({"status", "--json"}).output);
  ASSERT_EQ(status["services"].size(), Fleet::HOSTS);
  for (auto const& service : status["services"])
    EXPECT_EQ(service["service"]["facts"]["Role"],
              service["subject"] == Fleet::MASTER ? "master" : "client");
  EXPECT_THAT(m_fleet->stop(), testing::IsEmpty());
  Outcome const verified = master().tqdiscoctl({"db", "verify"});
  EXPECT_EQ(verified.exitCode, 0) << verified.output;
}

// Each announces itself again 300 seconds later, once, and reports then.
TEST_P(FleetStartTest, clientsThatComeBeforeTheMasterAreHeardLater)
{
  if (!m_fleet)
    return;
  std::vector<std::string> const early = {Fleet::MEDIA, Fleet::MAIL, Fleet::WEB, Fleet::LAST};
  for (auto const& name : early)
    host(name).launch();
  for (auto const& name : early)
    ASSERT_TRUE(host(name).awaitLog("on the master, retrying later")) << name;
  ASSERT_TRUE(master().start());
  ASSERT_TRUE(eventually([&] { return known(Fleet::MASTER, "service"); }, LONG));
  for (auto const& name : early)
    EXPECT_FALSE(known(name, "service"));

  for (auto const& name : early)
    host(name).jumpAhead(std::chrono::seconds(300));
  EXPECT_TRUE(eventually([&] { return m_fleet->complete(); }, LONG));
  for (auto const& name : early)
    EXPECT_EQ(occurrences(host(name).log(), "Registering 1 explorers with master server"), 2U)
        << name;
}

TQ_FLEET_FORMS(FleetStartTest);

} // namespace
