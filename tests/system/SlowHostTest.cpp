// Hosts that let those wait who ask them. Only those wait.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"
#include "tests/support/RemoteService.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
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

// The master of another service, in this process: it takes its time with every
// piece of a payload until it may answer.
class SlowMaster
{
public:
  explicit SlowMaster(std::string const& root)
  {
    setenv("TESSARINE_ROOT", root.c_str(), 1);
    reloadConfiguration();
    m_up = m_orb.init() && m_orb.run(0) == 0;
    if (!m_up)
      return;
    m_service->writer =
        Remote::RemoteWriter::_narrow(CORBA::Object_var(m_orb.activateObject(m_writer)));
    m_orb.advertiseObject("DiscoveryService", CORBA::Object_var(m_orb.activateObject(m_service)));
  }
  ~SlowMaster()
  {
    answer();
    m_orb.shutdown();
    unsetenv("TESSARINE_ROOT");
  }
  SlowMaster(SlowMaster const&) = delete;
  SlowMaster& operator=(SlowMaster const&) = delete;

  bool up() const { return m_up; }
  int waiting() const { return m_writer->waiting; }
  TestService& service() { return *m_service; }
  void answer() { m_writer->answer(); }
  void wait() { m_writer->wait(); }

private:
  class Writer : public Skeletons::RemoteWriter
  {
  public:
    std::atomic<int> waiting{0};

    CORBA::Boolean put(Remote::CollectionDataSeq const&) override
    {
      wait();
      return true;
    }
    DiscoveryResult close() override { return {DS_SUCCESS, 0}; }

    void wait()
    {
      std::unique_lock guard(m_mutex);
      ++waiting;
      m_changed.wait_for(guard, std::chrono::seconds(25), [this] { return m_mayAnswer; });
      --waiting;
    }
    void answer()
    {
      std::lock_guard const guard(m_mutex);
      m_mayAnswer = true;
      m_changed.notify_all();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_mayAnswer = false;
  };

  Writer* const m_writer = new Writer;
  TestService* const m_service = new TestService;
  PortableServer::ServantBase_var const m_keepWriter = m_writer;
  PortableServer::ServantBase_var const m_keepService = m_service;
  Orb m_orb{0, "", "DiscoveryService", 0, 0};
  bool m_up = false;
};

// A service that is a client of the slow master, which is this process.
class SlowMasterTest : public testing::Test
{
protected:
  SlowMasterTest()
  {
    std::filesystem::create_directories(m_there / "etc");
    std::string const names = "SERVER = there\nHOST_ADDRESS.here = 127.0.0.1\n"
                              "HOST_ADDRESS.there = 127.0.0.2\nORB_PORT.DiscoveryService = " +
                              std::to_string(m_here.port()) + "\n";
    writeText(m_here / "etc/tq.conf", names + "CLIENT_NAME = here\nORB_BIND = 127.0.0.1\n");
    writeText(m_there / "etc/tq.conf", names + "CLIENT_NAME = there\nORB_BIND = 127.0.0.2\n");
  }

  LiveService m_here;
  TempDir m_there;
};

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

TEST_F(SlowMasterTest, writersThatWaitForItLeaveThreadsToTheOthers)
{
  // As many as may have failed without one of them being dropped.
  constexpr std::size_t WRITERS = 16;
  constexpr int CALLS = 90;
  constexpr int MOST = 64;
  SlowMaster master(m_there.path());
  ASSERT_TRUE(master.up());
  ASSERT_TRUE(m_here.start()) << m_here.log();
  {
    client::Client client(m_there.path(), "here");
    ASSERT_TRUE(client.connected());
    std::vector<client::Remote::RemoteWriter_var> writers(WRITERS);
    for (auto& writer : writers)
      ASSERT_EQ(client->putCollection(client::makeRecord("subject", "authority"), writer.out())
                    .discStatus,
                client::DS_SUCCESS)
          << m_here.log();
    std::array<std::atomic<bool>, WRITERS> refusedOf{};
    std::atomic<int> refused{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < CALLS; ++i)
    {
      // Each writer has a call in progress before there are too many.
      if (i == static_cast<int>(WRITERS))
      {
        EXPECT_TRUE(eventually([&] { return master.waiting() == i; })) << master.waiting();
      }
      callers.emplace_back(
          [&, i]
          {
            try
            {
              auto const writer = static_cast<std::size_t>(i) % WRITERS;
              if (!writers[writer]->put(client::makeChunk("x")))
              {
                refusedOf[writer] = true;
                ++refused;
              }
            }
            catch (CORBA::Exception const& exception)
            {
              ADD_FAILURE() << corbaExceptionText(exception);
              ++failed;
            }
          });
    }
    EXPECT_TRUE(eventually([&] { return refused == CALLS - MOST; }, std::chrono::seconds(15)))
        << refused << '\n'
        << m_here.log();
    EXPECT_EQ(master.waiting(), static_cast<int>(WRITERS)) << "one call of a writer at a time";
    EXPECT_THAT(m_here.log(), HasSubstr("Refused a call of 127.0.0.1: 64 that write wait for the "
                                        "master already, subject subject & authority authority"));
    // What waits for nobody is answered.
    auto const start = std::chrono::steady_clock::now();
    client->restartLocalPushTimer();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    master.answer();
    for (auto& caller : callers)
      caller.join();
    EXPECT_EQ(failed, 0);
    // Of a payload of which a piece was refused nothing is stored.
    for (std::size_t i = 0; i < WRITERS; ++i)
      EXPECT_EQ(writers[i]->close().discStatus == client::DS_SUCCESS, !refusedOf[i]) << i;
  }
  EXPECT_EQ(m_here.stop(), 0) << m_here.log();
}

// Queries are refused at once beyond the twenty of the guard, and so are
// discoveries to be opened.
TEST_F(SlowMasterTest, queriesAndOpensThatWaitForItAreFewAndTheOthersAreRefused)
{
  constexpr int CALLS = 30;
  constexpr int MOST = 20;
  SlowMaster master(m_there.path());
  ASSERT_TRUE(master.up());
  ASSERT_TRUE(m_here.start()) << m_here.log();
  {
    client::Client client(m_there.path(), "here");
    ASSERT_TRUE(client.connected());
    master.service().before = [&] { master.wait(); };
    std::atomic<int> refused{0};
    std::vector<std::thread> callers;
    auto const callAll = [&](std::function<void()> const& call)
    {
      for (int i = 0; i < CALLS; ++i)
        callers.emplace_back(
            [&refused, call]
            {
              try
              {
                call();
              }
              catch (CORBA::Exception const&)
              {
                ++refused;
              }
            });
    };
    callAll(
        [&]
        {
          client::Remote::DiscoveryIterator_var const iterator =
              client->queryDiscoveries(client::DQ_DISCOVERY_DATA, AT_EXTSRC, "*", "*");
        });
    EXPECT_TRUE(eventually([&] { return refused == CALLS - MOST && master.waiting() == MOST; }))
        << refused << ' ' << master.waiting();
    callAll(
        [&]
        {
          client::Remote::RemoteWriter_var writer;
          if (client->putCollection(client::makeRecord("subject", "authority"), writer.out())
                  .discStatus != client::DS_SUCCESS)
            ++refused;
        });
    EXPECT_TRUE(
        eventually([&] { return refused == 2 * (CALLS - MOST) && master.waiting() == 2 * MOST; }))
        << refused << ' ' << master.waiting();
    client->restartLocalPushTimer();
    master.answer();
    for (auto& caller : callers)
      caller.join();
  }
  EXPECT_EQ(m_here.stop(), 0) << m_here.log();
}
