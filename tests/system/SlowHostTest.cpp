// Hosts that let those wait who ask them. Only those wait.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"
#include "tests/support/RemoteService.h"

#include <gmock/gmock.h>

#include <condition_variable>

namespace
{

using namespace tqtest;
using testing::HasSubstr;

std::size_t threadsOf(Process& process)
{
  std::filesystem::directory_iterator const all("/proc/" + std::to_string(process.pid()) + "/task");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

} // namespace

// Every registration has a bound of its own, but a peer may register a host as
// often as it likes.
TEST(SlowHostTest, whoWaitsForAnotherHostLeavesThreadsToTheOthers)
{
  constexpr int READERS = 20;
  constexpr int HELPERS = 5;
  LiveService service;
  unsigned short const slowPort = freePort();
  service.configure("ORB_PORT.SlowService = " + std::to_string(slowPort) + "\n");
  ASSERT_TRUE(service.start()) << service.log();

  // The slow host is this process.
  setenv("TESSARINE_ROOT", service.root().c_str(), 1);
  ASSERT_TRUE(reloadConfiguration());
  Orb slow(0, "", "SlowService", 0, 0);
  ASSERT_TRUE(slow.init());
  ASSERT_EQ(slow.run(0), 0);
  auto* const servant = new TestService;
  PortableServer::ServantBase_var const keeper(servant);
  std::mutex mutex;
  std::condition_variable changed;
  bool mayAnswer = false;
  servant->before = [&]
  {
    std::unique_lock guard(mutex);
    changed.wait_for(guard, std::chrono::seconds(25), [&] { return mayAnswer; });
  };
  CORBA::Object_var const reference = slow.activateObject(servant);
  slow.advertiseObject("DiscoveryService", reference);
  auto const asked = [&]
  {
    std::lock_guard const guard(servant->mutex);
    return servant->queries.size();
  };
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    ASSERT_EQ(client.store("other", "kept", "<kept/>"), client::DS_SUCCESS);
    auto const registerSlowHost = [&]
    { client->registerExplorer("127.0.0.1", "SlowService", "slow", "volume", AT_EXTSRC, 1); };
    std::deque<Process> helpers;
    for (std::size_t i = 1; i <= HELPERS; ++i)
    {
      registerSlowHost();
      helpers.emplace_back(TQ_BIN_DIR "/collection_reader",
                           std::vector<std::string>{service.root(), LiveService::NAME, "slow",
                                                    std::to_string(READERS)});
      ASSERT_TRUE(eventually([&] { return asked() == i * READERS; })) << asked() << '\n'
                                                                      << service.log();
    }

    registerSlowHost();
    auto record = client::makeRecord("slow", "volume");
    record.authType = AT_EXTSRC;
    client::Remote::CollectionDataIterator_var iterator;
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(client->getCollectionData(record, "", iterator.out()), client::DS_OPEN_FAILED);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_THAT(service.log(), HasSubstr("Refused a request of 127.0.0.1 for data of 127.0.0.1: "
                                         "100 requests wait for other hosts already"));
    EXPECT_EQ(asked(), std::size_t(HELPERS * READERS));
    EXPECT_LT(threadsOf(service.process()), 300U);
    EXPECT_EQ(client.read("other", "kept"), "<kept/>");

    {
      std::lock_guard const guard(mutex);
      mayAnswer = true;
      changed.notify_all();
    }
    for (auto& helper : helpers)
    {
      EXPECT_TRUE(helper.wait());
      EXPECT_EQ(helper.output(), "answered\n") << helper.errors();
    }
    EXPECT_EQ(client->getCollectionData(record, "", iterator.out()), client::DS_OPEN_FAILED);
    EXPECT_GT(asked(), std::size_t(HELPERS * READERS)) << "there is room again";
  }
  EXPECT_EQ(service.stop(), 0) << service.log();
  slow.shutdown();
  unsetenv("TESSARINE_ROOT");
}
