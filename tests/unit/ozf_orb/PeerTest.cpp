#include "ozf/base/SystemError.h"
#include "ozf/orb/ConnectionCounts.h"
#include "ozf/orb/Peer.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_orb/ServingProcess.h"

#include <atomic>
#include <condition_variable>
#include <fcntl.h>
#include <future>
#include <sys/wait.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

// "127.0.0.1 3": the peer as the servant sees it, "nobody" without one.
class PeerServant : public POA_OrbTest::Probe
{
public:
  char* echo(char const* text) override
  {
    OrbTest::Probe_ptr const next = inner;
    if (next != nullptr && std::string(text) == "within")
    {
      CORBA::String_var const answer = next->echo("x");
      return CORBA::string_dup((answer.in() + (" " + seen())).c_str());
    }
    return CORBA::string_dup(seen().c_str());
  }
  void fail(char const*) override { throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_YES); }
  void waitForGate() override {}
  CORBA::Boolean destroyItself() override { return false; }
  void pause(CORBA::ULong) override {}
  CORBA::ULong size(OrbTest::Bytes const&) override { return 0; }

  std::atomic<OrbTest::Probe_ptr> inner{nullptr}; // set while it is served

private:
  static std::string seen()
  {
    Peer const* const peer = currentPeer();
    return peer == nullptr ? "nobody" : peer->address + " " + std::to_string(peer->connection);
  }
};

// Calls the service of this process from a process of its own, so that the
// calls go over the wire.
class CallingProcess
{
public:
  CallingProcess()
  {
    int toChild[2];
    int toParent[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(toParent, O_CLOEXEC) != 0)
      std::abort();
    m_pid = fork();
    if (m_pid == 0)
    {
      close(toChild[1]);
      serve(toChild[0], toParent[1]);
      _exit(0);
    }
    close(toChild[0]);
    close(toParent[1]);
    m_tell.reset(toChild[1]);
    m_hear.reset(toParent[0]);
  }
  ~CallingProcess() { end(); }

  void end()
  {
    // Not by closing: a later one of these processes has the pipe as well.
    if (m_pid > 0 && write(m_tell.get(), "end\n", 4) == 4)
      waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

  // What the servant answers; "failed" when the call fails.
  std::string ask(char const* text)
  {
    std::string line = text;
    line += '\n';
    if (write(m_tell.get(), line.data(), line.size()) < 0)
      return "";
    std::string answer;
    for (char byte = 0; read(m_hear.get(), &byte, 1) == 1 && byte != '\n';)
      answer += byte;
    return answer;
  }

private:
  static void serve(int told, int answer)
  {
    std::string line;
    std::unique_ptr<Client> client;
    for (char byte = 0; read(told, &byte, 1) == 1;)
    {
      if (byte != '\n')
      {
        line += byte;
        continue;
      }
      if (line == "end")
        return;
      if (!client)
        client = std::make_unique<Client>();
      std::string said = "failed\n";
      try
      {
        auto const probe = probeOf(client->orb, "Peer");
        if (line == "fail")
          probe->fail("");
        else
          said = std::string(CORBA::String_var(probe->echo(line.c_str())).in()) + "\n";
      }
      catch (CORBA::Exception const&)
      {
      }
      if (write(answer, said.data(), said.size()) < 0)
        return;
      line.clear();
    }
  }

  pid_t m_pid = -1;
  UniqueFd m_tell;
  UniqueFd m_hear;
};

class PeerTest : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(m_orb.init());
    m_orb.run(0);
    m_servant = new PeerServant;
    CORBA::Object_var object = m_orb.activateObject(m_servant);
    m_orb.advertiseObject("Peer", object);
    m_own = OrbTest::Probe::_narrow(object);
    m_servant->inner = m_own;
    m_servant->_remove_ref();
  }

  ProductRoot const m_root{serviceAt(freePort())};
  // Before this process has threads.
  CallingProcess m_first;
  CallingProcess m_second;
  Orb m_orb{1, "", "ProbeService", 1, 16};
  PeerServant* m_servant = nullptr;
  OrbTest::Probe_var m_own;
};

ConnectionNumber numberIn(std::string const& answer)
{
  auto const space = answer.rfind(' ');
  return space == std::string::npos ? 0 : std::stoull(answer.substr(space + 1));
}

} // namespace

TEST_F(PeerTest, isTheAddressAndTheConnectionOfACallFromTheNetwork)
{
  std::string const once = m_first.ask("x");
  EXPECT_EQ(once.substr(0, once.find(' ')), "127.0.0.1") << once;
  EXPECT_EQ(m_first.ask("x"), once) << "the same connection";
  std::string const other = m_second.ask("x");
  EXPECT_NE(numberIn(other), numberIn(once));
  EXPECT_TRUE(isConnectionOpen(numberIn(once)));
  EXPECT_TRUE(isConnectionOpen(numberIn(other)));
}

TEST_F(PeerTest, isNobodyOutsideOfCallsAndWithinTheProcess)
{
  EXPECT_EQ(currentPeer(), nullptr);
  EXPECT_STREQ(CORBA::String_var(m_own->echo("x")), "nobody");
  std::string const both = m_first.ask("within");
  EXPECT_EQ(both.substr(0, both.find("127.")), "nobody ") << both;
  EXPECT_NE(numberIn(both), 0U) << both;
}

TEST_F(PeerTest, isAsBeforeAfterACallThatFailed)
{
  std::string const once = m_first.ask("x");
  EXPECT_EQ(m_first.ask("fail"), "failed");
  EXPECT_EQ(m_first.ask("x"), once);
  EXPECT_STREQ(CORBA::String_var(m_own->echo("x")), "nobody");
}

TEST_F(PeerTest, aConnectionThatGoesIsToldOf)
{
  std::mutex mutex;
  std::condition_variable told;
  std::vector<Peer> gone;
  ConnectionObserver const observer(
      [&](Peer const& peer)
      {
        std::lock_guard guard(mutex);
        gone.push_back(peer);
        EXPECT_FALSE(isConnectionOpen(peer.connection));
        told.notify_all();
      });
  auto const first = numberIn(m_first.ask("x"));
  auto const second = numberIn(m_second.ask("x"));
  ASSERT_NE(first, 0U);
  m_first.end();
  std::unique_lock lock(mutex);
  ASSERT_TRUE(told.wait_for(lock, std::chrono::seconds(30), [&] { return !gone.empty(); }));
  EXPECT_EQ(gone.size(), 1U);
  EXPECT_EQ(gone[0].connection, first);
  EXPECT_EQ(gone[0].address, "127.0.0.1");
  EXPECT_FALSE(isConnectionOpen(first));
  EXPECT_TRUE(isConnectionOpen(second));
  EXPECT_FALSE(isConnectionOpen(0));
  EXPECT_FALSE(isConnectionOpen(first + second + 1000));
}

TEST_F(PeerTest, connectionsAreCounted)
{
  EXPECT_EQ(connectionCounts().taken, 0U);
  ASSERT_NE(numberIn(m_first.ask("x")), 0U);
  ASSERT_NE(numberIn(m_second.ask("x")), 0U);
  EXPECT_EQ(connectionCounts().taken, 2U);
  EXPECT_EQ(connectionCounts().open, 2U);
  m_first.end();
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (connectionCounts().open != 1 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(connectionCounts().open, 1U);
  EXPECT_EQ(connectionCounts().taken, 2U);
  EXPECT_EQ(connectionCounts().refused, 0U);
}

TEST_F(PeerTest, whatAnObserverThrowsIsLoggedAndTheOthersAreTold)
{
  LogCapture log(1);
  ConnectionObserver const throwing([](Peer const&) { throw std::runtime_error("not mine"); });
  std::promise<ConnectionNumber> told;
  ConnectionObserver const second([&](Peer const& peer) { told.set_value(peer.connection); });
  auto const number = numberIn(m_first.ask("x"));
  m_first.end();
  auto future = told.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(future.get(), number);
  EXPECT_TRUE(log.has(1, "ConnectionTable::tell",
                      "Caught exception telling that a connection has gone: not mine"))
      << log.text();
}

TEST_F(PeerTest, anObserverThatGoesIsNotToldAnyMore)
{
  std::atomic<bool> entered = false;
  std::promise<void> leave;
  auto observer = std::make_unique<ConnectionObserver>(
      [&](Peer const&)
      {
        entered = true;
        leave.get_future().wait();
      });
  ASSERT_NE(numberIn(m_first.ask("x")), 0U);
  m_first.end();
  ASSERT_TRUE(eventually([&] { return entered.load(); }));
  auto destroyed = std::async(std::launch::async, [&] { observer.reset(); });
  EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout)
      << "it waits for the call";
  leave.set_value();
  destroyed.get();
}

// A stranger who knows one reference must not be able to make another.
TEST_F(PeerTest, idsOfObjectsAreNotNumbersInSequence)
{
  std::vector<std::string> keys;
  for (int i = 0; i < 3; ++i)
  {
    PeerServant* const servant = new PeerServant;
    CORBA::Object_var object = m_orb.activateObject(servant);
    servant->_remove_ref();
    CORBA::Object_var root = m_orb.resolveInitialReference("RootPOA");
    PortableServer::POA_var top = PortableServer::POA::_narrow(root);
    PortableServer::POA_var objects = top->find_POA("objects", false);
    PortableServer::ObjectId_var id = objects->reference_to_id(object);
    keys.emplace_back(reinterpret_cast<char const*>(id->get_buffer()), id->length());
    ASSERT_GE(keys.back().size(), 16U);
    m_orb.destroyObjectRef(object);
  }
  // Half of the bytes are random, and hardly ever are three of those the same.
  auto const agreeing = [](std::string const& a, std::string const& b)
  {
    std::size_t same = 0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
      same += a[i] == b[i] ? 1 : 0;
    return same;
  };
  EXPECT_LE(agreeing(keys[0], keys[1]), 10U);
  EXPECT_LE(agreeing(keys[1], keys[2]), 10U);
}
