// What peers may have of a service's port: connections, requests a second, calls at
// once.

#include "tests/system/limits/LimitsTesting.h"

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <atomic>

namespace
{

using namespace tqtest;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

class ConnectionLimitsTest : public LimitsTest
{
protected:
  ~ConnectionLimitsTest() override { closeConnections(); }

  void closeConnections()
  {
    for (int const socket : m_sockets)
      close(socket);
    m_sockets.clear();
  }

  // Opens connections of the greedy peer, none of which says anything.
  void openConnections(int count)
  {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(m_service.port());
    for (int i = 0; i < count; ++i)
    {
      m_sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      ASSERT_EQ(::connect(m_sockets.back(), reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
    }
  }

  long closedByPeer() const
  {
    return std::count_if(m_sockets.begin(), m_sockets.end(),
                         [](int socket)
                         {
                           char byte = 0;
                           pollfd wait{socket, POLLIN, 0};
                           return poll(&wait, 1, 0) == 1 &&
                                  recv(socket, &byte, 1, MSG_DONTWAIT) <= 0;
                         });
  }

  // The quickest of a few, as what else the machine does only makes them slower.
  milliseconds timeOfOthers()
  {
    auto best = steady_clock::duration::max();
    for (int i = 0; i < 5; ++i)
    {
      auto const start = steady_clock::now();
      EXPECT_EQ(m_service.tqdiscoctl({"show", "other", "rack"}).exitCode, 0) << m_service.log();
      best = std::min(best, steady_clock::now() - start);
    }
    return std::chrono::duration_cast<milliseconds>(best);
  }

  struct Answers
  {
    std::atomic<int> served{0};
    std::atomic<int> transient{0};
    std::atomic<int> others{0};
  };

  // Asks again and again over so many connections until it is told to end.
  void ask(Answers& answers, std::atomic<bool> const& ended)
  {
    while (!ended)
      try
      {
        (*m_client)->_non_existent();
        ++answers.served;
      }
      catch (CORBA::TRANSIENT const&)
      {
        ++answers.transient;
      }
      catch (CORBA::Exception const&)
      {
        ++answers.others;
      }
  }
  // For so long; while it lasts the other function is called.
  template <class Meanwhile>
  milliseconds flood(int threads, Answers& answers, milliseconds least, Meanwhile meanwhile)
  {
    std::atomic<bool> ended{false};
    std::vector<std::thread> callers;
    auto const start = steady_clock::now();
    for (int i = 0; i < threads; ++i)
      callers.emplace_back([&] { ask(answers, ended); });
    meanwhile();
    std::this_thread::sleep_until(start + least);
    ended = true;
    for (auto& caller : callers)
      caller.join();
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
  }

private:
  std::vector<int> m_sockets;
};

} // namespace

TEST_F(ConnectionLimitsTest, AnAddressHasSoManyConnectionsAndOthersComeIn)
{
  start("LIMIT_PEER_CONNECTIONS = 20\n");
  openConnections(30);
  EXPECT_TRUE(eventually([this] { return closedByPeer() == 10; })) << closedByPeer();
  EXPECT_THAT(m_service.log(), testing::ContainsRegex("Refused a connection from giop:tcp:127.0.7."
                                                      "1:[0-9]+, its address has too many"));
  expectAudited("connect", "its address has too many");
  expectOthersAreServed();
  EXPECT_EQ(closedByPeer(), 10);
  expectStops();
}

TEST_F(ConnectionLimitsTest, OfAllConnectionsOneAddressHasNoMoreThanHalf)
{
  start("LIMIT_CONNECTIONS = 40\n");
  openConnections(60);
  EXPECT_TRUE(eventually([this] { return closedByPeer() == 40; })) << closedByPeer();
  expectOthersAreServed();
  expectStops();
}

TEST_F(ConnectionLimitsTest, ThereAreSoManyConnectionsInAll)
{
  start("LIMIT_CONNECTIONS = 3\n");
  openConnections(2);
  SourceAddress const another("127.0.7.2");
  openConnections(2);
  EXPECT_TRUE(eventually([this] { return closedByPeer() == 1; })) << closedByPeer();
  EXPECT_THAT(m_service.log(), testing::ContainsRegex("Refused a connection from giop:tcp:127.0.7."
                                                      "2:[0-9]+, there are too many"));
  closeConnections();
  EXPECT_TRUE(eventually([this] { return m_service.tqdiscoctl({"query"}).exitCode != 5; }))
      << m_service.log();
  expectOthersAreServed();
  expectStops();
}

TEST_F(ConnectionLimitsTest, WhoAsksTooOftenWaitsThenIsRefusedAndOthersAreAsQuickAsBefore)
{
  constexpr int A_SECOND = 100;
  start("LIMIT_PEER_REQUESTS = 100\nLIMIT_REQUEST_WAIT = 200\n");
  expectOthersAreServed();
  auto const undisturbed = timeOfOthers();
  connect();

  // No more of them wait at a time than have their turn in time.
  Answers slowed;
  auto took = flood(10, slowed, milliseconds(1500), [] {});
  auto const ended = steady_clock::now();
  EXPECT_EQ(slowed.transient, 0);
  EXPECT_EQ(slowed.others, 0);
  EXPECT_LE(slowed.served, A_SECOND + A_SECOND * took.count() / 1000 + 10);
  EXPECT_GE(slowed.served, A_SECOND);
  EXPECT_EQ(occurrences(m_service.log(), "Refused a request"), 0U) << m_service.log();

  Answers refused;
  auto disturbed = milliseconds::max();
  took = flood(50, refused, milliseconds(1000),
               [&] {
                 disturbed = std::min({timeOfOthers(), timeOfOthers(), timeOfOthers()});
               });
  EXPECT_GT(refused.transient, 0);
  EXPECT_EQ(refused.others, 0);
  auto const since = std::chrono::duration_cast<milliseconds>(steady_clock::now() - ended);
  EXPECT_LE(refused.served, A_SECOND * since.count() / 1000 + 40);
  // Who is refused has waited as well: fifty ask no more than five times a second each.
  EXPECT_LE(refused.transient, 50 * (took.count() / 200 + 1));
  // What else runs on the machine may have begun or ended meanwhile.
  EXPECT_LE(disturbed, 2 * std::max(undisturbed, timeOfOthers()));
  EXPECT_THAT(m_service.log(), HasSubstr("Refused a request of 127.0.7.1: it makes more than 100 a "
                                         "second"));
  expectAudited("_non_existent", "too many requests a second");
  std::cout << "others " << undisturbed.count() << " ms, beside the flood " << disturbed.count()
            << " ms; served " << refused.served << ", refused " << refused.transient << " in "
            << took.count() << " ms\n";
  expectInStatus("LIMIT_PEER_REQUESTS", A_SECOND, static_cast<std::uint64_t>(refused.transient));
  expectStops();
}

// Two calls wait for a host that takes connections and answers nothing.
TEST_F(ConnectionLimitsTest, OfAnAddressSoManyCallsAreInProgressAndOthersAreServed)
{
  constexpr char SILENT[] = "127.0.7.9";
  start("LIMIT_PEER_CALLS = 2\nHOST_ADDRESS.silent = " + std::string(SILENT) + "\n");
  int silent = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = inet_addr(SILENT);
  name.sin_port = htons(m_service.port());
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  ASSERT_EQ(listen(silent, 8), 0);
  connect();
  (*m_client)->registerExplorer("silent", "DiscoveryService", "subject", "volume",
                                client::AT_EXTSRC, 1);
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i)
    callers.emplace_back(
        [this]
        {
          client::Remote::CollectionDataIterator_var data;
          auto record = client::makeRecord("subject", "volume");
          record.authType = client::AT_EXTSRC;
          EXPECT_EQ((*m_client)->getCollectionData(record, "", data.out()), client::DS_OPEN_FAILED);
        });
  std::vector<int> asked;
  std::atomic<bool> isServed{false};
  auto const isAskedTwice = [&]
  {
    if (pollfd wait{silent, POLLIN, 0}; poll(&wait, 1, 0) == 1)
      asked.push_back(accept(silent, nullptr, nullptr));
    return asked.size() == 2;
  };
  EXPECT_TRUE(eventually(isAskedTwice)) << m_service.log();
  callers.emplace_back(
      [&]
      {
        (*m_client)->_non_existent();
        isServed = true;
      });
  EXPECT_TRUE(m_service.process().awaitError(
      "Kept a request of 127.0.7.1 waiting: 2 of its calls are in progress"))
      << m_service.log();
  expectOthersAreServed();
  EXPECT_FALSE(isServed);
  // More may be from a reload on, and the next one that ends lets in who waited.
  reload("LIMIT_PEER_CALLS = 4\nHOST_ADDRESS.silent = " + std::string(SILENT) + "\n");
  EXPECT_FALSE((*m_client)->_non_existent());
  EXPECT_TRUE(eventually([&] { return isServed.load(); })) << m_service.log();
  expectInStatus("LIMIT_PEER_CALLS", 4, 1);
  asked.push_back(silent);
  for (int const socket : asked)
    close(socket);
  for (auto& caller : callers)
    caller.join();
  expectStops();
}

TEST_F(ConnectionLimitsTest, WithoutALimitNobodyIsRefused)
{
  start("");
  connect();
  Answers answers;
  // More than any limit above would let through in this time, on the slowest machine.
  for (int round = 0; round < 60 && answers.served <= 1000; ++round)
    flood(20, answers, milliseconds(500), [] {});
  EXPECT_EQ(answers.transient, 0);
  EXPECT_EQ(answers.others, 0);
  EXPECT_GT(answers.served, 1000);
  EXPECT_EQ(occurrences(m_service.log(), "Refused"), 0U) << m_service.log();
  expectStops();
}
