#include "ozf/orb/Liveness.h"

#include "ozf/base/SystemError.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ServingProcess.h"

#include <fcntl.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

// A process that opens connections to the port and keeps them, and shares none
// of this one's limits.
class Crowd
{
public:
  Crowd(unsigned short port, int count)
  {
    int toChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0)
      std::abort();
    m_pid = fork();
    if (m_pid == 0)
    {
      close(toChild[1]);
      char byte = 0;
      if (read(toChild[0], &byte, 1) == 1)
        for (; count > 0; --count)
        {
          sockaddr_in const name = loopback(port);
          connect(socket(AF_INET, SOCK_STREAM, 0), reinterpret_cast<sockaddr const*>(&name),
                  sizeof name);
        }
      _exit(read(toChild[0], &byte, 1) != 0);
    }
    close(toChild[0]);
    m_tell.reset(toChild[1]);
  }
  ~Crowd()
  {
    m_tell.reset();
    int status = 0;
    waitpid(m_pid, &status, 0);
    EXPECT_EQ(0, status);
  }
  Crowd(Crowd const&) = delete;
  Crowd& operator=(Crowd const&) = delete;

  void come() { EXPECT_EQ(1, write(m_tell.get(), "c", 1)); }

private:
  pid_t m_pid = -1;
  UniqueFd m_tell;
};

} // namespace

TEST(LivenessTest, aCrowdFromTheOwnAddressDoesNotMakeTheServiceLookDead)
{
  using namespace std::chrono_literals;
  constexpr rlim_t DESCRIPTORS = 400;
  unsigned short const port = freePort();
  ProductRoot const root{serviceAt(port)};
  Crowd crowd(port, DESCRIPTORS / 2 + 10);
  LogCapture log;
  Orb orb(1, "", "ProbeService", 1, 16);
  ASSERT_TRUE(orb.init());
  ASSERT_EQ(0, orb.run(0));
  ASSERT_TRUE(isServiceAnswering("ProbeService", 20s));
  rlimit limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  limit.rlim_cur = DESCRIPTORS;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));

  crowd.come();
  EXPECT_TRUE(
      eventually([&] { return log.text().find("its address has too many") != std::string::npos; }))
      << log.text();
  EXPECT_TRUE(isServiceAnswering("ProbeService", 20s)) << log.text();
}

TEST(LivenessTest, aPortThatAnswersNothingOrSomethingElseIsNoService)
{
  using namespace std::chrono_literals;
  unsigned short const port = freePort();
  ProductRoot const root{serviceAt(port)};
  UniqueFd const listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int const on = 1;
  setsockopt(listening.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in const name = loopback(port);
  ASSERT_EQ(0, bind(listening.get(), reinterpret_cast<sockaddr const*>(&name), sizeof name));
  ASSERT_EQ(0, listen(listening.get(), 8));
  EXPECT_FALSE(isServiceAnswering("ProbeService", 200ms)) << "it was connected to";

  // A message that closes the connection, as an ORB may send it, and whole nonsense.
  for (std::string const& reply : {std::string("GIOP\1\0\0\5\0\0\0\0", 12), std::string(12, 'x')})
  {
    std::thread peer(
        [&]
        {
          UniqueFd const waiting(accept(listening.get(), nullptr, nullptr)); // from before
          UniqueFd const asking(accept(listening.get(), nullptr, nullptr));
          send(asking.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
          char end = 0;
          while (recv(asking.get(), &end, 1, 0) > 0)
            ;
        });
    EXPECT_FALSE(isServiceAnswering("ProbeService", 20s)) << reply;
    peer.join();
    ASSERT_FALSE(isServiceAnswering("ProbeService", 0ms)); // for the next to pass over
  }
}
