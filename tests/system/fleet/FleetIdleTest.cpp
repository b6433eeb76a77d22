// Hosts that have nothing to say for a minute.

#include "tests/system/fleet/FleetForms.h"

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

class FleetIdleTest : public FleetTest
{
};

// Takes the minute between two reports of a service, in real time: the ORB
// counts by its own clock.
TEST_P(FleetIdleTest, theFirstReportAfterAnIdleMinuteArrives)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(master().start());
  ASSERT_TRUE(startAndAwait(Fleet::WEB, {{"TQ_FIXTURE_PACED_INTERVAL", "3600"}}));
  std::string const report = master().database() + "/2 service 95web.xml";
  auto const first = fs::last_write_time(report);
  EXPECT_TRUE(
      eventually([&] { return fs::last_write_time(report) != first; }, std::chrono::seconds(180)));
  EXPECT_THAT(host(Fleet::WEB).log(), Not(HasSubstr("Failed to connect")));
}

TQ_FLEET_FORMS(FleetIdleTest);

} // namespace
