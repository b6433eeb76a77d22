// A fleet of real services, on loopback addresses and in network namespaces.

#include "tests/support/Fleet.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <iostream>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

enum class Form
{
  LOOPBACK,
  NAMESPACES
};

class FleetTest : public testing::TestWithParam<Form>
{
protected:
  // Null where the machine lacks the right to namespaces: the same test on
  // loopback stands in.
  std::unique_ptr<Fleet> makeFleet()
  {
    if (GetParam() == Form::LOOPBACK)
      return std::make_unique<Fleet>(makeLoopbackNetwork());
    std::string reason;
    auto network = makeNamespaceNetwork(Fleet::HOSTS, reason);
    if (network)
      return std::make_unique<Fleet>(std::move(network));
    std::cout << "Not run: " << reason << ". The same test on loopback stands in.\n";
    return nullptr;
  }
};

TEST_P(FleetTest, everyHostIsDiscoveredAndStopsOrderly)
{
  auto const fleet = makeFleet();
  if (!fleet)
    return;
  ASSERT_TRUE(fleet->start()) << fleet->logs();
  json const status = json::parse(fleet->master().tqdiscoctl({"status", "--json"}).output);
  ASSERT_EQ(status["services"].size(), Fleet::HOSTS);
  for (auto const& service : status["services"])
    EXPECT_EQ(service["service"]["facts"]["Role"],
              service["subject"] == Fleet::MASTER ? "master" : "client");
  EXPECT_THAT(fleet->stop(), IsEmpty()) << fleet->logs();
  Outcome const verified = fleet->master().tqdiscoctl({"db", "verify"});
  EXPECT_EQ(verified.exitCode, 0) << verified.output;
}

INSTANTIATE_TEST_SUITE_P(Forms, FleetTest, testing::Values(Form::LOOPBACK, Form::NAMESPACES),
                         [](auto const& form)
                         { return form.param == Form::LOOPBACK ? "loopback" : "namespaces"; });

} // namespace
