#include "discovery/DiscoveryRepository.h"

#include "tests/support/RemoteOperations.h"
#include "tests/support/RemoteService.h"
#include "tests/support/Service.h"

#include <gtest/gtest.h>

#include <condition_variable>

using namespace tqtest;

namespace
{

constexpr char QUERY[] = "DiscoveryRepository::queryRemoteDiscoveries";
constexpr int LIMIT = 20;

OzfHostname hostNamed(char const* name)
{
  OzfHostname host;
  host.setHostname(name);
  return host;
}

std::string selfConnection(std::string const& host)
{
  return "Hostname detected as remote and/or master, but appears to be connecting back to self, "
         "RemoteHost: " +
         host;
}

class DiscoveryRepositoryRemoteTest : public RemoteServiceTest
{
protected:
  DiscoveryRepositoryRemoteTest()
      : RemoteServiceTest("HOST_ADDRESS.closed = 127.0.0.2\nHOST_ADDRESS.silent = 127.0.0.3\n")
  {
  }

  bool connects(char const* host, char const* service = SERVICE)
  {
    Remote::DiscoveryService_var const reference =
        connectToRemoteDS(hostNamed(host), m_orb.get(), service);
    return !CORBA::is_nil(reference);
  }
  bool queries()
  {
    AutoDereference<DiscoveryIterator> const discoveries(
        getDiscoveryRepository().queryRemoteDiscoveries(DQ_DISCOVERY_DATA, "s*", "a*", AT_EXTSRC));
    return static_cast<bool>(discoveries);
  }
  bool logHasLineThatBegins(std::string const& begin)
  {
    return m_log.text().find("1 " + std::string(QUERY) + ": " + begin) != std::string::npos;
  }

  // Takes another object's reference for the service's.
  void advertiseAnotherInterface()
  {
    serveWriter();
    m_orb->advertiseObject(SERVICE, m_service->writer);
  }
};

// Accepts connections, as far as the system does, and never answers. Closing
// it breaks what it holds.
class SilentListener
{
public:
  SilentListener(char const* address, unsigned short port)
      : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    inet_pton(AF_INET, address, &name.sin_addr);
    int const on = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(m_fd, reinterpret_cast<sockaddr const*>(&name), sizeof name) != 0 ||
        listen(m_fd, 64) != 0)
      ADD_FAILURE() << "cannot listen on " << address;
  }
  ~SilentListener() { stop(); }
  SilentListener(SilentListener const&) = delete;
  SilentListener& operator=(SilentListener const&) = delete;

  void stop()
  {
    if (m_fd >= 0)
      close(std::exchange(m_fd, -1));
  }

private:
  int m_fd;
};

// ---- connecting ----

TEST_F(DiscoveryRepositoryRemoteTest, AConnectionNamesItsHostAndServiceAsDetail)
{
  EXPECT_TRUE(connects("localhost"));
  EXPECT_EQ(1, m_log.count(4, RemoteOperations::CONNECT, "Host: localhost")) << m_log.text();
  EXPECT_EQ(1, m_log.count(4, RemoteOperations::CONNECT, "Service: DiscoveryService"))
      << m_log.text();
}

TEST_F(DiscoveryRepositoryRemoteTest, AnObjectOfAnotherInterfaceIsNoService)
{
  advertiseAnotherInterface();
  EXPECT_FALSE(connects("localhost"));
  EXPECT_EQ(1, m_log.count(1, RemoteOperations::CONNECT,
                           "Failed to connect to remote discovery service ( narrow failed )"))
      << m_log.text();
}

TEST_F(DiscoveryRepositoryRemoteTest, AServiceWithoutAPortCannotBeResolved)
{
  EXPECT_FALSE(connects("localhost", "NoSuchService"));
  EXPECT_EQ(
      1, m_log.count(1, RemoteOperations::CONNECT, "Failed to connect to remote discovery service"))
      << m_log.text();
  EXPECT_EQ(0, m_log.count(1, RemoteOperations::CONNECT,
                           "Failed to connect to remote discovery service."));
}

TEST_F(DiscoveryRepositoryRemoteTest, AHostThatRefusesTheConnectionGivesTheLineWithTheFullStop)
{
  EXPECT_FALSE(connects("closed"));
  EXPECT_EQ(1, m_log.count(1, RemoteOperations::CONNECT,
                           "Failed to connect to remote discovery service."))
      << m_log.text();
  EXPECT_NE(std::string::npos,
            m_log.text().find("1 " + std::string(RemoteOperations::CONNECT) + ": TRANSIENT"))
      << m_log.text();
  EXPECT_EQ(0, m_log.count(1, RemoteOperations::CONNECT,
                           "Failed to connect to remote discovery service"));
}

TEST_F(DiscoveryRepositoryRemoteTest, TheTwentyFirstConnectionAttemptAtOnceIsRefused)
{
  SilentListener silent("127.0.0.3", m_orb->port());
  std::vector<std::thread> attempts;
  std::atomic<int> connected{0};
  for (int i = 0; i < LIMIT; ++i)
    attempts.emplace_back([&] { connected += connects("silent") ? 1 : 0; });
  EXPECT_TRUE(eventually(
      [&] { return m_log.count(4, RemoteOperations::CONNECT, "Host: silent") == LIMIT; }));
  EXPECT_EQ(0, m_log.count(1, RemoteOperations::CONNECT, selfConnection("silent"))) << m_log.text();

  // This host would answer.
  EXPECT_FALSE(connects("localhost"));
  EXPECT_EQ(1, m_log.count(1, RemoteOperations::CONNECT, selfConnection("localhost")))
      << m_log.text();

  silent.stop();
  for (auto& attempt : attempts)
    attempt.join();
  EXPECT_EQ(0, connected);
  EXPECT_EQ(LIMIT, m_log.count(1, RemoteOperations::CONNECT,
                               "Failed to connect to remote discovery service."))
      << "none of the twenty was refused";
  EXPECT_TRUE(connects("localhost")) << "there is room again";
}

// ---- querying the master ----

TEST_F(DiscoveryRepositoryRemoteTest, AQueryIsHandedToTheMaster)
{
  serveRecords({{makeRecord("one"), makeRecord("two")}});
  EXPECT_TRUE(queries()) << m_log.text();
  ASSERT_EQ(1u, m_service->queries.size());
  EXPECT_EQ(DQ_DISCOVERY_DATA, m_service->queries[0].query);
  EXPECT_EQ(AT_EXTSRC, m_service->queries[0].type);
  EXPECT_EQ("s*", m_service->queries[0].subject);
  EXPECT_EQ("a*", m_service->queries[0].authority);
}

TEST_F(DiscoveryRepositoryRemoteTest, AMasterThatIsNoServiceGivesNoAnswer)
{
  advertiseAnotherInterface();
  EXPECT_FALSE(queries());
  EXPECT_EQ(1, m_log.count(1, QUERY, "Failed to connect to discovery service")) << m_log.text();
}

TEST_F(DiscoveryRepositoryRemoteTest, AQueryThatTheMasterFailsIsLoggedWithItsException)
{
  m_service->makeRecords = []() -> Remote::DiscoveryIterator_ptr { throw CORBA::NO_RESOURCES(); };
  EXPECT_FALSE(queries());
  EXPECT_TRUE(logHasLineThatBegins("Failed to query remote discoveries: NO_RESOURCES"))
      << m_log.text();
}

TEST_F(DiscoveryRepositoryRemoteTest, AnAnswerThatBreaksOffIsNoAnswer)
{
  auto* const records = serveRecords({{makeRecord("one")}});
  records->beforePage = [records]
  {
    if (records->pagesAsked == 1)
      throw CORBA::NO_RESOURCES();
  };
  EXPECT_FALSE(queries());
  EXPECT_TRUE(logHasLineThatBegins("Failed to query remote discoveries: NO_RESOURCES"))
      << m_log.text();
}

TEST_F(DiscoveryRepositoryRemoteTest, TheTwentyFirstRemoteQueryAtOnceIsRefused)
{
  std::mutex mutex;
  std::condition_variable changed;
  bool mayAnswer = false;
  m_service->before = [&]
  {
    std::unique_lock guard(mutex);
    changed.wait_for(guard, std::chrono::seconds(60), [&] { return mayAnswer; });
  };
  m_service->makeRecords = [this]
  {
    auto* const records = new RecordPages;
    records->pages = {{makeRecord("one")}};
    return activate<Remote::DiscoveryIterator>(records);
  };
  std::vector<std::thread> calls;
  std::atomic<int> answers{0};
  for (int i = 0; i < LIMIT; ++i)
    calls.emplace_back([&] { answers += queries() ? 1 : 0; });
  EXPECT_TRUE(eventually(
      [this]
      {
        std::lock_guard guard(m_service->mutex);
        return m_service->queries.size() == LIMIT;
      }))
      << m_log.text();
  EXPECT_EQ(0, m_log.count(1, QUERY, selfConnection("localhost"))) << m_log.text();

  EXPECT_FALSE(queries());
  EXPECT_EQ(1, m_log.count(1, QUERY, selfConnection("localhost"))) << m_log.text();
  EXPECT_EQ(std::size_t(LIMIT), m_service->queries.size()) << "the master was not asked";

  {
    std::lock_guard guard(mutex);
    mayAnswer = true;
    changed.notify_all();
  }
  for (auto& call : calls)
    call.join();
  EXPECT_EQ(LIMIT, answers);
  EXPECT_TRUE(queries()) << "there is room again";
}

} // namespace
