// Peers that begin requests and do not end them.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

namespace
{

using namespace tqtest;
using Clock = std::chrono::steady_clock;

// The header of a request, and less of it than it says.
std::string halfRequest()
{
  std::string bytes = std::string("GIOP\1\2\1\0", 8) + std::string("\x64\0\0\0", 4);
  return bytes + std::string("\1\0\0\0\3\0\0\0", 8);
}

int connectFrom(std::string const& source, unsigned short port)
{
  int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  inet_pton(AF_INET, source.c_str(), &name.sin_addr);
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  target.sin_port = htons(port);
  if (bind(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0 &&
      connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof target) == 0)
    return fd;
  close(fd);
  return -1;
}

class HalfOpenRequestTest : public testing::Test
{
protected:
  void SetUp() override { ASSERT_TRUE(m_service.start()) << m_service.log(); }
  void TearDown() override
  {
    for (int const fd : m_half)
      close(fd);
  }

  void begin(std::string const& source, int count)
  {
    std::string const half = halfRequest();
    for (int i = 0; i < count; ++i)
    {
      int const fd = connectFrom(source, m_service.port());
      ASSERT_GE(fd, 0) << "after " << m_half.size() << ": " << std::strerror(errno);
      m_half.push_back(fd);
      ASSERT_EQ(send(fd, half.data(), half.size(), MSG_NOSIGNAL), ssize_t(half.size()));
    }
  }

  // What a call of one honest client takes. Other programs may run beside, so
  // it is the least of some medians.
  std::chrono::microseconds honestTime() const
  {
    constexpr std::size_t CALLS = 100;
    client::Client client(m_service.root(), LiveService::NAME);
    EXPECT_TRUE(client.connected());
    auto least = std::chrono::microseconds::max();
    for (int round = 0; round < 5; ++round)
    {
      std::vector<std::chrono::microseconds> times;
      for (std::size_t i = 0; i < CALLS; ++i)
      {
        auto const start = Clock::now();
        EXPECT_EQ(client.subjects().size(), 0U);
        times.push_back(
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start));
      }
      std::nth_element(times.begin(), times.begin() + CALLS / 2, times.end());
      least = std::min(least, times[CALLS / 2]);
    }
    return least;
  }

  static bool isClosed(int fd)
  {
    char byte;
    return recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0 || (errno != EAGAIN && errno != EINTR);
  }

  std::size_t threads()
  {
    auto const folder = "/proc/" + std::to_string(m_service.process().pid()) + "/task";
    std::filesystem::directory_iterator const all(folder);
    return static_cast<std::size_t>(
        std::distance(std::filesystem::begin(all), std::filesystem::end(all)));
  }

  LiveService m_service;
  std::vector<int> m_half;
};

} // namespace

TEST_F(HalfOpenRequestTest, costNoThreadsAndKeepNobodyOut)
{
  auto const alone = honestTime();
  std::size_t const threadsBefore = threads();
  begin("127.0.0.2", 3000);
  for (int i = 1; i <= 50; ++i)
    begin("127.0.1." + std::to_string(i), 12);
  auto const beside = honestTime();
  EXPECT_LE(beside.count(), 2 * alone.count()) << "in microseconds";
  EXPECT_LE(threads(), threadsBefore + 20);
}

TEST_F(HalfOpenRequestTest, endTheirConnectionsAfterSeconds)
{
  auto const start = Clock::now();
  begin("127.0.0.2", 5);
  auto const begun = Clock::now();
  EXPECT_TRUE(eventually([&] { return std::all_of(m_half.begin(), m_half.end(), isClosed); },
                         std::chrono::seconds(60)));
  auto const end = Clock::now();
  EXPECT_GE(end - start, std::chrono::milliseconds(4500));
  EXPECT_LE(end - begun, std::chrono::seconds(15));
  // It is written when the connections have ended.
  auto const told = [&]
  {
    return m_service.log().find("Ended a connection from 127.0.0.2, its request did not go on") !=
           std::string::npos;
  };
  EXPECT_TRUE(eventually(told, std::chrono::seconds(10))) << m_service.log();
}
