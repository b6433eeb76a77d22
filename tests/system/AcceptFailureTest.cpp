// A service that is not allowed to take connections in for a while.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <optional>
#include <sstream>

// The sanitizers look at memory through a pipe, and end a process that gets none.
#ifdef TQ_PLAIN_BUILD

namespace
{

using namespace tqtest;

// The time that a process has worked.
std::chrono::milliseconds worked(pid_t pid)
{
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string const text{std::istreambuf_iterator<char>(file), {}};
  std::istringstream words(text.substr(text.rfind(')') + 1));
  std::string word;
  long ticks = 0;
  for (int i = 3; words >> word && i <= 15; ++i)
    ticks += i >= 14 ? std::stol(word) : 0;
  return std::chrono::milliseconds(ticks * 1000 / sysconf(_SC_CLK_TCK));
}

// While it lives the process gets no descriptor, and may not wait for several.
class NoDescriptors
{
public:
  explicit NoDescriptors(pid_t pid) : m_pid(pid)
  {
    EXPECT_EQ(prlimit(pid, RLIMIT_NOFILE, nullptr, &m_before), 0);
    rlimit const few{1, m_before.rlim_max};
    EXPECT_EQ(prlimit(pid, RLIMIT_NOFILE, &few, nullptr), 0);
  }
  ~NoDescriptors() { EXPECT_EQ(prlimit(m_pid, RLIMIT_NOFILE, &m_before, nullptr), 0); }
  NoDescriptors(NoDescriptors const&) = delete;
  NoDescriptors& operator=(NoDescriptors const&) = delete;

private:
  pid_t const m_pid;
  rlimit m_before{};
};

} // namespace

// As it is without descriptors or memory: the system refuses to wait and to accept.
TEST(AcceptFailureTest, aServiceThatCannotTakeConnectionsInSaysSoAndRecovers)
{
  constexpr char const* LINE = "Unable to take in connections at ";
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  pid_t const pid = service.process().pid();
  std::optional<NoDescriptors> none(pid);

  int const waiting = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  name.sin_port = htons(service.port());
  ASSERT_EQ(connect(waiting, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  EXPECT_TRUE(service.process().awaitError(LINE, std::chrono::seconds(10))) << service.log();
  auto const atFirst = worked(pid);
  EXPECT_TRUE(
      eventually([&] { return occurrences(service.log(), LINE) >= 2; }, std::chrono::seconds(10)))
      << service.log();
  EXPECT_LT((worked(pid) - atFirst).count(), 500) << "it tries without a pause";

  none.reset();
  {
    client::Client client(service.root(), LiveService::NAME);
    EXPECT_TRUE(client.connected()) << service.log();
  }
  close(waiting);
  EXPECT_EQ(service.stop(), 0) << service.log();
}

TEST(AcceptFailureTest, aServiceThatCannotWaitForSignalsSaysSoAndObeysThemLater)
{
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  pid_t const pid = service.process().pid();
  std::optional<NoDescriptors> none(pid);
  ASSERT_EQ(kill(pid, SIGHUP), 0); // after which its thread waits for the next one
  EXPECT_TRUE(service.process().awaitError("Unable to wait for signals", std::chrono::seconds(30)))
      << service.log();
  none.reset();
  EXPECT_EQ(service.stop(), 0) << service.log();
}

#endif
