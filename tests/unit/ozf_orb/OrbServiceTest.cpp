#include "ozf/orb/OrbService.h"

#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ProbeServant.h"

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::vector<std::string> steps;

class Service : public OrbService
{
public:
  Service() : OrbService("TestedService", 400, nullptr, true, "Tested Service", false, 16, nullptr)
  {
  }

  std::string failing;
  bool throwing = false;
  bool wanted = true;
  std::atomic<bool> ran{false};

protected:
  int doInit() override { return step("doInit"); }
  int doRun() override
  {
    int const result = step("doRun");
    ran = true;
    return result;
  }
  int doStop() override { return step("doStop"); }
  int doExit() override { return step("doExit"); }
  bool doShouldStart() override
  {
    step("doShouldStart");
    return wanted;
  }

private:
  int step(std::string const& name)
  {
    steps.push_back(name);
    if (failing != name)
      return 0;
    if (throwing)
      throw std::runtime_error("hook broke");
    return 7;
  }
};

class OrbServiceTest : public testing::Test
{
protected:
  OrbServiceTest() { steps.clear(); }

  int runWithStop(Service& service)
  {
    service.stopByEvent(false);
    return service.main({[] { steps.push_back("ready"); }, [] { steps.push_back("stopping"); }},
                        started);
  }

  ProductRoot root{""};
  bool started = true;
};

using Steps = std::vector<std::string>;

} // namespace

TEST_F(OrbServiceTest, goesThroughItsHooksInOrder)
{
  Service service;
  EXPECT_EQ(runWithStop(service), OrbService::ORDERLY);
  EXPECT_TRUE(started);
  EXPECT_EQ(steps,
            (Steps{"doShouldStart", "doInit", "doRun", "ready", "stopping", "doStop", "doExit"}));
  EXPECT_EQ(service.getOrb().getReactor(), nullptr);
}

TEST_F(OrbServiceTest, servesUntilItIsToldToStopFromAnotherThread)
{
  Service service;
  std::atomic<bool> returned{false};
  std::thread runner(
      [&]
      {
        service.main({}, started);
        returned = true;
      });
  ASSERT_TRUE(eventually([&] { return service.ran.load(); }));
  EXPECT_FALSE(returned);
  service.stopByEvent(true);
  service.stopByEvent(false);
  runner.join();
  EXPECT_EQ(steps.back(), "doExit");
}

TEST_F(OrbServiceTest, doesNotStartWhenItShouldNot)
{
  Service service;
  service.wanted = false;
  EXPECT_EQ(runWithStop(service), OrbService::ORDERLY);
  EXPECT_FALSE(started);
  EXPECT_EQ(steps, Steps{"doShouldStart"});
}

TEST_F(OrbServiceTest, aFailedInitFailsTheStartAndIsTakenDown)
{
  LogCapture log(1);
  Service service;
  service.failing = "doInit";
  EXPECT_EQ(runWithStop(service), OrbService::START_FAILED);
  EXPECT_FALSE(started);
  EXPECT_EQ(steps, (Steps{"doShouldStart", "doInit", "doStop", "doExit"}));
  EXPECT_TRUE(log.has(1, "OrbService::main", "TestedService: doInit failed with 7")) << log.text();
}

TEST_F(OrbServiceTest, anExceptionOfAHookIsCaughtAndLogged)
{
  LogCapture log(1);
  Service service;
  service.failing = "doStop";
  service.throwing = true;
  EXPECT_EQ(runWithStop(service), OrbService::STOP_FAILED);
  EXPECT_EQ(steps.back(), "doExit");
  EXPECT_TRUE(
      log.has(1, "OrbService::main", "TestedService: caught exception in doStop: hook broke"))
      << log.text();
}

TEST_F(OrbServiceTest, aPortInUseFailsTheStart)
{
  BoundSocket const taken("127.0.0.1", true);
  ProductRoot const busy(
      "ORB_BIND = 127.0.0.1\nORB_PORT.TestedService = " + std::to_string(taken.port()) + "\n");
  Service service;
  EXPECT_EQ(runWithStop(service), OrbService::START_FAILED);
  EXPECT_EQ(steps, Steps{"doShouldStart"});
}

TEST_F(OrbServiceTest, isTheServiceOfTheProcessWhileItLives)
{
  EXPECT_EQ(OrbService::Instance(), nullptr);
  {
    Service service;
    EXPECT_EQ(OrbService::Instance(), &service);
    EXPECT_EQ(service.getServiceName(), "TestedService");
    EXPECT_EQ(service.getDescription(), "Tested Service");
    EXPECT_TRUE(service.isDebug());
  }
  EXPECT_EQ(OrbService::Instance(), nullptr);
}
