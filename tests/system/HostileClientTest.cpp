// Clients that send nonsense, hold on, or die. Afterwards the service answers
// as before, and what is stored is unharmed.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>
#include <poll.h>

#include <atomic>
#include <random>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using Subjects = std::multiset<std::string>;

// A bare connection.
class Connection
{
public:
  explicit Connection(unsigned short port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(port);
    m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0;
  }
  Connection(Connection&& other) noexcept : m_fd(other.m_fd), m_connected(other.m_connected)
  {
    other.m_fd = -1;
  }
  ~Connection()
  {
    if (m_fd >= 0)
      close(m_fd);
  }

  bool connected() const { return m_connected; }

  // The peer may have hung up by now.
  void send(std::string const& bytes) const
  {
    if (::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0)
      return;
  }

  bool readable(std::chrono::milliseconds time) const
  {
    pollfd wait{m_fd, POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(time.count())) > 0;
  }

  // What comes next, empty when nothing does.
  std::string receive() const
  {
    std::string bytes(4096, '\0');
    ssize_t const got =
        readable(std::chrono::seconds(10)) ? recv(m_fd, bytes.data(), bytes.size(), 0) : 0;
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return bytes;
  }

  // Whether the peer has closed the connection.
  bool closed() const
  {
    pollfd wait{m_fd, POLLIN, 0};
    char byte;
    return poll(&wait, 1, 0) > 0 && recv(m_fd, &byte, 1, MSG_DONTWAIT) <= 0;
  }

private:
  int m_fd;
  bool m_connected;
};

std::string giopHeader(unsigned char type, std::uint32_t size, char minorVersion = 2)
{
  std::string header = "GIOP";
  header += '\1';
  header += minorVersion;
  header += '\0'; // big endian
  header += static_cast<char>(type);
  for (int shift = 24; shift >= 0; shift -= 8)
    header += static_cast<char>(size >> shift);
  return header;
}

class HostileClientTest : public testing::Test
{
protected:
  void start(LiveService::Words const& wrapper = {})
  {
    ASSERT_TRUE(m_service.start({}, wrapper)) << m_service.log();
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    for (int i = 0; i < 20; ++i)
    {
      m_stored.insert("subject" + std::to_string(i));
      ASSERT_EQ(client.store("subject" + std::to_string(i), "kept", "<kept/>"), client::DS_SUCCESS);
    }
  }

  void expectUnharmed()
  {
    {
      client::Client client(m_service.root(), LiveService::NAME);
      ASSERT_TRUE(client.connected()) << m_service.log();
      EXPECT_EQ(client.subjects("kept"), m_stored);
      EXPECT_EQ(client.read("subject7", "kept"), "<kept/>");
      EXPECT_EQ(client.store("afterwards", "other", "<new/>"), client::DS_SUCCESS);
      EXPECT_EQ(client.read("afterwards", "other"), "<new/>");
    }
    EXPECT_EQ(m_service.stop(), 0) << m_service.log();
    Outcome const verified = m_service.tqdiscoctl({"db", "verify"});
    EXPECT_EQ(verified.exitCode, 0) << verified.output;
    EXPECT_EQ(verified.output.find(".updating"), std::string::npos) << verified.output;
  }

  std::unique_ptr<Process> startHelper(std::string const& what)
  {
    return std::make_unique<Process>(
        TQ_BIN_DIR "/remote_writer",
        std::vector<std::string>{m_service.root(), LiveService::NAME, what});
  }

  std::size_t openDescriptors()
  {
    auto const folder = "/proc/" + std::to_string(m_service.process().pid()) + "/fd";
    std::filesystem::directory_iterator const all(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  LiveService m_service;
  Subjects m_stored;
};

} // namespace

TEST_F(HostileClientTest, garbageAndDamagedHeadersEndTheirConnectionOnly)
{
  start();
  std::vector<std::string> messages{std::string("GIO"),                             // cut short
                                    giopHeader(0, 100).substr(0, 7),                // cut short
                                    giopHeader(0, 100) + "only a part of the body", // cut short
                                    giopHeader(0, 0xffffffff) + "x", // longer than memory
                                    giopHeader(0, 0x7fffffff) +
                                        std::string(1000, '\xff'),       // longer than is taken
                                    giopHeader(0, 0) + giopHeader(0, 0), // empty bodies
                                    giopHeader(200, 4) + "abcd",         // no such message
                                    giopHeader(1, 8, 9) + "abcdefgh",    // no such version
                                    giopHeader(7, 4) + "abcd",           // a fragment of nothing
                                    giopHeader(5, 0),                    // goodbye at once
                                    "GET / HTTP/1.1\r\nHost: here\r\n\r\n",
                                    std::string(64, '\0')};
  std::mt19937 random(1);
  for (int i = 0; i < 200; ++i)
  {
    std::string noise(random() % 400, '\0');
    for (char& c : noise)
      c = static_cast<char>(random());
    messages.push_back(noise);
    // What looks like a request until the body is read.
    messages.push_back(giopHeader(0, static_cast<std::uint32_t>(noise.size())) + noise);
  }
  for (auto const& message : messages)
  {
    Connection const connection(m_service.port());
    ASSERT_TRUE(connection.connected());
    connection.send(message);
  }
  expectUnharmed();
}

TEST_F(HostileClientTest, idleConnectionsKeepNobodyOut)
{
  start();
  std::vector<Connection> idle;
  for (int i = 0; i < 100; ++i)
  {
    idle.emplace_back(m_service.port());
    ASSERT_TRUE(idle.back().connected());
    if (i % 2 == 0)
      idle.back().send("GIOP\1"); // and never the rest
  }
  expectUnharmed();
}

TEST_F(HostileClientTest, clientsThatDieInTheMiddleOfARequestAreForgotten)
{
  start();
  for (int i = 0; i < 10; ++i)
  {
    auto const asking = startHelper("asking");
    ASSERT_TRUE(eventually([&] { return !asking->output().empty(); })) << asking->errors();
    asking->sendSignal(SIGKILL);
    ASSERT_TRUE(asking->wait());
    ASSERT_EQ(asking->exitCode(), 128 + SIGKILL) << asking->errors();
  }
  expectUnharmed();
}

TEST_F(HostileClientTest, writesWhoseClientDiesAreNeverStoredAndStopNoOther)
{
  start();
  {
    auto const writing = startHelper("5");
    ASSERT_TRUE(eventually([&] { return !writing->output().empty(); })) << writing->errors();
    writing->sendSignal(SIGKILL);
    ASSERT_TRUE(writing->wait());
    ASSERT_EQ(writing->exitCode(), 128 + SIGKILL) << writing->errors();
  }
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(client.subjects(), m_stored);
    // The name itself is free.
    EXPECT_EQ(client.store("dying0", "writer", "<mine/>"), client::DS_SUCCESS);
    EXPECT_EQ(client.read("dying0", "writer"), "<mine/>");
  }
  expectUnharmed();
}

TEST_F(HostileClientTest, iteratorsThatAreNeverReleasedPushTheOldestOut)
{
  start();
  std::size_t const before = openDescriptors();
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    std::vector<client::Remote::DiscoveryIterator_var> held;
    for (int i = 0; i < 2000; ++i)
    {
      held.push_back(
          client->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_ANYANDALL, "*", "*"));
      // A walk under way holds more than one at its beginning.
      client::Remote::DiscoverySeq_var const page = held.back()->getNextPage();
      ASSERT_GT(page->length(), 0U);
    }
    EXPECT_THAT(m_service.log(),
                HasSubstr("More than 1024 objects in use, dropped the one idle longest"));
    EXPECT_THROW(client::Remote::DiscoverySeq_var(held.front()->getNextPage()),
                 CORBA::OBJECT_NOT_EXIST);
    client::Remote::DiscoverySeq_var const page = held.back()->getNextPage();
    EXPECT_GT(page->length(), 0U) << "the newest is as good as ever";
    EXPECT_LT(openDescriptors(), before + 1100) << "what was pushed out is let go";
  }
  expectUnharmed();
}

TEST_F(HostileClientTest, moreConnectionsThanDescriptorsAreRefusedAndTheServiceRecovers)
{
  start({"/usr/bin/prlimit", "--nofile=160:160"});
  std::vector<Connection> flood;
  EXPECT_TRUE(eventually(
      [&]
      {
        flood.emplace_back(m_service.port());
        return m_service.log().find("Refused a connection from ") != std::string::npos;
      },
      std::chrono::seconds(60)))
      << m_service.log();
  EXPECT_THAT(m_service.log(), HasSubstr("too many open files"));
  EXPECT_TRUE(eventually(
      [&]
      {
        return std::any_of(flood.begin(), flood.end(),
                           [](auto const& each) { return each.closed(); });
      }));
  // What is open goes on while the flood lasts.
  EXPECT_LT(openDescriptors(), 160U);
  flood.clear();
  EXPECT_TRUE(eventually([&] { return openDescriptors() < 80; }, std::chrono::seconds(60)))
      << openDescriptors();
  expectUnharmed();
}

// A key that is none of the service's, in the form of those that the ORB makes.
TEST_F(HostileClientTest, foreignKeysAreAnsweredOnceWithObjectNotExist)
{
  start();
  using namespace std::string_literals;
  std::vector<std::string> const keys{"\xff"
                                      "DiscoveryService#1\xff"
                                      "evictable\0\x13"s,
                                      "\xff"
                                      "DiscoveryService#1\xff"
                                      "objects\0"s,
                                      "\xff"
                                      "DiscoveryService#1\xff"
                                      "objects\xfe"
                                      "12345678\0abc"s,
                                      "\xff"
                                      "DiscoveryService#1\xff"
                                      "objects"s,
                                      "\xff"
                                      "DiscoveryService#1\0\1"s,
                                      "\xff"
                                      "DiscoveryService#1\xfe"
                                      "1234567"s,
                                      "\xff"
                                      "omniINSPOA\0\1"s,
                                      "\xff"
                                      "omniINSPOA\0DiscoveryService"s,
                                      "\xff"
                                      "omniINSPOA\xfe"
                                      "12345678\0DiscoveryService"s,
                                      "\xff\xff\xff\0"s,
                                      "\xff"s,
                                      "\xfe"s,
                                      "\xfe"
                                      "12345678\0x"s,
                                      "\0"s,
                                      "\0abcdefgh"s,
                                      ""s,
                                      "Nobody"s,
                                      "INIT"s,
                                      std::string(1000, '\xff'),
                                      std::string(1000, '\xfe')};
  for (auto const& key : keys)
  {
    std::string body = std::string("\0\0\0\7\3\0\0\0\0\0\0\0\0\0", 14);
    body += {static_cast<char>(key.size() >> 8), static_cast<char>(key.size())};
    body += key;
    body.resize((body.size() + 3) / 4 * 4);
    body += std::string("\0\0\0\14getNextPage\0\0\0\0\0", 20);
    std::string const request = giopHeader(0, static_cast<std::uint32_t>(body.size())) + body;
    Connection const connection(m_service.port());
    // Twice, as what is left of the first would be found by the second.
    for (int i = 0; i < 2; ++i)
    {
      connection.send(request);
      std::string const answer = connection.receive();
      EXPECT_NE(answer.find("IDL:omg.org/CORBA/OBJECT_NOT_EXIST:1.0"), std::string::npos)
          << testing::PrintToString(key) << ": " << testing::PrintToString(answer);
    }
    EXPECT_FALSE(connection.readable(std::chrono::milliseconds(20))) << testing::PrintToString(key);
  }
  EXPECT_THAT(m_service.log(), testing::Not(HasSubstr("Assertion failed")));
  EXPECT_LT(m_service.log().size(), 100000U);
  expectUnharmed();
}

// Cost many services their life within the first second.
TEST_F(HostileClientTest, requestsThatOverlapInAllWaysHarmNobody)
{
  start();
  Process attacker(TQ_BIN_DIR "/message_attacker", {std::to_string(m_service.port()), "3", "1"});
  ASSERT_TRUE(attacker.wait(std::chrono::seconds(60)));
  EXPECT_EQ(attacker.exitCode(), 0) << attacker.output() << attacker.errors() << m_service.log();
  expectUnharmed();
}
