// Requests that are broken off, or that claim to be more than they are. What the
// service keeps for a request goes with its connection.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <functional>
#include <fstream>

namespace
{

using namespace tqtest;

constexpr int REQUESTS = 2000;
// In KiB. What may be lost is 3 KiB for each request, or more.
[[maybe_unused]] constexpr long MOST_GROWTH = REQUESTS;

std::string little(std::uint32_t value)
{
  std::string bytes;
  for (unsigned shift = 0; shift < 32; shift += 8)
    bytes += static_cast<char>(value >> shift);
  return bytes;
}

constexpr unsigned char IS_REQUEST = 0;
constexpr unsigned char IS_FRAGMENT = 7;

std::string giop(unsigned char type, bool more, std::string const& body, std::size_t claimed = 0,
                 char minor = 2)
{
  std::string header = "GIOP\1";
  header += minor;
  header += static_cast<char>(more ? 3 : 1); // little endian
  header += static_cast<char>(type);
  return header + little(static_cast<std::uint32_t>(claimed == 0 ? body.size() : claimed)) + body;
}

std::string aligned(std::string body, std::size_t grain)
{
  while ((body.size() + 12) % grain != 0)
    body += '\0';
  return body;
}

std::string counted(std::string const& text)
{
  return aligned(little(static_cast<std::uint32_t>(text.size())) + text, 4);
}

std::string bodyOf(std::string const& key, std::uint32_t contexts = 0)
{
  return little(1) + std::string("\3\0\0\0\0\0\0\0", 8) + counted(key) +
         counted(std::string("_non_existent\0", 14)) + little(contexts);
}

std::string const NO_OBJECT(3000, 'x');
std::string const THE_SERVICE = "DiscoveryService";

class BrokenRequestTest : public testing::Test
{
protected:
  void SetUp() override { ASSERT_TRUE(m_service.start()) << m_service.log(); }

  // Each over a connection of its own, which is then ended by whoever ends it.
  void send(std::string const& bytes, int count)
  {
    for (int i = 0; i < count; ++i)
    {
      int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in name{};
      name.sin_family = AF_INET;
      name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      name.sin_port = htons(m_service.port());
      ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
      ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
      shutdown(fd, SHUT_WR);
      pollfd wait{fd, POLLIN, 0};
      char answer[4096];
      while (poll(&wait, 1, 10000) == 1 && recv(fd, answer, sizeof answer, 0) > 0)
      {
      }
      close(fd);
    }
  }

  // In KiB: "VmRSS:" is what is in memory now, "VmHWM:" the most there ever was.
  long memory(std::string const& what)
  {
    std::ifstream status("/proc/" + std::to_string(m_service.process().pid()) + "/status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with(what))
        return std::stol(line.substr(what.size()));
    return -1;
  }

  void expectGone(char const* what, std::string const& bytes)
  {
    send(bytes, REQUESTS / 10);
    [[maybe_unused]] long const before = memory("VmRSS:");
    send(bytes, REQUESTS);
#ifdef TQ_PLAIN_BUILD
    EXPECT_LT(memory("VmRSS:") - before, MOST_GROWTH) << what;
#endif
    client::Client client(m_service.root(), LiveService::NAME);
    EXPECT_TRUE(client.connected()) << what << m_service.log();
  }

  LiveService m_service;
};

} // namespace

// The ORB has found what is wrong with each and skips the rest, which does not
// come. Leak checkers look at the end.
TEST_F(BrokenRequestTest, costNoMemoryWhenTheirConnectionHasEnded)
{
  std::string const begun = giop(IS_REQUEST, true, aligned(bodyOf(NO_OBJECT), 8));
  expectGone("a fragment that does not come", begun);
  expectGone("a fragment in another order of bytes",
             begun + std::string("GIOP\1\2\0\7\0\0\0\4\0\0\0\1", 16));
  expectGone(
      "the rest of a large request",
      giop(IS_REQUEST, false, aligned(bodyOf(NO_OBJECT), 8) + std::string(9000, 'x'), 20000));
  expectGone("more than the arguments",
             giop(IS_REQUEST, false, bodyOf(THE_SERVICE) + std::string(12, 'x')));
  expectGone("a fragment after the arguments",
             giop(IS_REQUEST, true, aligned(bodyOf(THE_SERVICE), 8)) +
                 giop(IS_FRAGMENT, true, little(1) + std::string(8, '\0')));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

// More than a hundred megabytes each, for some hundred bytes.
TEST_F(BrokenRequestTest, thatClaimContextsWithoutNumberGetNoRoomForThem)
{
  send(giop(IS_REQUEST, false, bodyOf(THE_SERVICE)), 10);
  [[maybe_unused]] long const before = memory("VmHWM:");
  for (std::uint32_t const many : {100000U, 4000000U})
    send(giop(IS_REQUEST, true, aligned(bodyOf(THE_SERVICE, many), 8)) +
             giop(IS_FRAGMENT, false, little(1)),
         5);
#ifdef TQ_PLAIN_BUILD
  EXPECT_LT(memory("VmHWM:") - before, 4 * MOST_GROWTH);
#endif
  client::Client client(m_service.root(), LiveService::NAME);
  EXPECT_TRUE(client.connected()) << m_service.log();
}
