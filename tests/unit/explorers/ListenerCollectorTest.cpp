#include "explorers/ListenerCollector.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <filesystem>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using ExplorerTesting::fixture;
using testing::ElementsAre;

namespace
{

std::vector<std::string> listenerLines(std::vector<Listener> const& listeners)
{
  std::vector<std::string> lines;
  for (auto const& found : listeners)
    lines.push_back(nameOf(found) + " | " + found.process + " | " + found.user);
  return lines;
}

// A socket of this process on the loopback address.
class Listening
{
public:
  Listening(int family, int type) : m_fd(socket(family, type, 0))
  {
    sockaddr_in6 six = {};
    six.sin6_family = AF_INET6;
    six.sin6_addr = in6addr_loopback;
    sockaddr_in four = {};
    four.sin_family = AF_INET;
    four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool const isSix = family == AF_INET6;
    socklen_t length = isSix ? sizeof six : sizeof four;
    auto* const address =
        isSix ? reinterpret_cast<sockaddr*>(&six) : reinterpret_cast<sockaddr*>(&four);
    EXPECT_EQ(0, bind(m_fd, address, length));
    EXPECT_TRUE(type == SOCK_DGRAM || listen(m_fd, 1) == 0);
    EXPECT_EQ(0, getsockname(m_fd, address, &length));
    std::ostringstream name;
    name << (type == SOCK_STREAM ? "tcp " : "udp ") << (isSix ? "[::1]:" : "127.0.0.1:")
         << ntohs(isSix ? six.sin6_port : four.sin_port);
    m_name = name.str();
  }
  ~Listening() { close(m_fd); }
  Listening(Listening const&) = delete;
  Listening& operator=(Listening const&) = delete;

  std::string const& name() const { return m_name; }

private:
  int m_fd;
  std::string m_name;
};

} // namespace

TEST(ListenerCollector, readsTheListenersOfARecordedHost)
{
  EXPECT_THAT(listenerLines(collectListeners(fixture("server"))),
              ElementsAre("tcp 0.0.0.0:22 | systemd, sshd | root", "tcp 0.0.0.0:2049 |  | root",
                          "tcp 0.0.0.0:8080 | app one | 4711", "tcp 0.0.0.0:31337 |  | root",
                          "tcp 127.0.0.1:5432 | postgres | postgres",
                          "tcp [2001:db8::1]:443 | <\x1b[2J]&\n\xff | www-data",
                          "tcp [::]:22 | sshd | root", "udp 127.0.0.53:53 | resolved | resolve",
                          "udp [::]:123 |  | root"));
}

TEST(ListenerCollector, linesThatAreDamagedAreLeftOut)
{
  LogCapture const log(1);
  EXPECT_THAT(listenerLines(collectListeners(fixture("damaged"))),
              ElementsAre("tcp 0.0.0.0:25 |  | 0"));
  EXPECT_EQ("", log.text());
}

TEST(ListenerCollector, aSearchThatTakesTooLongGivesTheListenersWithoutProcesses)
{
  auto const listeners = collectListeners(fixture("server"), std::chrono::milliseconds(0));
  EXPECT_EQ(9U, listeners.size());
  for (auto const& found : listeners)
    EXPECT_EQ("", found.process);
}

TEST(ListenerCollector, aTableWithoutEndIsLeftAtSoManyListeners)
{
  TempDir const dir;
  std::filesystem::create_directories(dir / "proc/net");
  std::ostringstream table;
  for (int i = 0; i < 10100; ++i)
    table << i << ": " << std::uppercase << std::hex << 0x10000000 + i << std::dec
          << ":0016 00000000:0000 0A 0:0 0:0 0 0 0 0\n";
  writeText(dir / "proc/net/tcp", table.str());
  LogCapture const log(1);
  EXPECT_EQ(10000U, collectListeners(dir.path()).size());
  EXPECT_THAT(log.text(), testing::HasSubstr("More than 10000 sockets listen"));
}

TEST(ListenerCollector, theListenersOfThisProcessAreFoundWithItsName)
{
  std::array<char, 16> old = {};
  prctl(PR_GET_NAME, old.data());
  Listening const sockets[] = {{AF_INET, SOCK_STREAM},
                               {AF_INET6, SOCK_STREAM},
                               {AF_INET, SOCK_DGRAM},
                               {AF_INET6, SOCK_DGRAM}};
  std::string const odd = "a\x1b[1m<\n\xff,b";
  prctl(PR_SET_NAME, odd.c_str());
  auto const listeners = collectListeners("/", std::chrono::seconds(20));
  prctl(PR_SET_NAME, old.data());
  for (auto const& expected : sockets)
  {
    auto const found =
        std::find_if(listeners.begin(), listeners.end(),
                     [&](Listener const& each) { return nameOf(each) == expected.name(); });
    ASSERT_NE(listeners.end(), found) << expected.name();
    EXPECT_EQ(odd, found->process);
    EXPECT_NE("", found->user);
  }
}
