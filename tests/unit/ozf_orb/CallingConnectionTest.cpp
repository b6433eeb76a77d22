#include "ozf/base/SystemError.h"
#include "tests/unit/ozf_orb/ServingProcess.h"

#include <cstring>
#include <functional>
#include <future>
#include <list>

using namespace Quillon::Tessarine::Ozf;

namespace
{

// Answers the first request of each connection with whatever it is told and
// keeps the connection.
class LyingServer
{
public:
  // What is sent for a request of that number.
  using Answer = std::function<std::string(std::uint32_t id)>;

  explicit LyingServer(Answer answer) : m_answer(std::move(answer)), m_thread([this] { serve(); })
  {
  }
  ~LyingServer()
  {
    m_ended = true;
    m_thread.join();
  }
  LyingServer(LyingServer const&) = delete;
  LyingServer& operator=(LyingServer const&) = delete;

  OrbTest::Probe_var probe(char const* version) const
  {
    int none = 0;
    CORBA::ORB_var const orb = CORBA::ORB_init(none, nullptr, "omniORB4"); // the one there is
    CORBA::Object_var const object =
        orb->string_to_object((std::string("corbaloc:iiop:") + version +
                               "@127.0.0.1:" + std::to_string(m_socket.port()) + "/Probe")
                                  .c_str());
    return OrbTest::Probe::_unchecked_narrow(object);
  }

private:
  void serve()
  {
    std::list<UniqueFd> kept;
    while (!m_ended)
    {
      UniqueFd connection(m_socket.accept(std::chrono::milliseconds(20)));
      char request[4096];
      if (!connection.valid() || recv(connection.get(), request, sizeof request, 0) < 24)
        continue;
      // Calls of old versions have a list of contexts before it, which is empty.
      bool const isOldCall = request[5] < 2 && request[7] == 0;
      std::uint32_t id = 0;
      std::memcpy(&id, request + (isOldCall ? 16 : 12), sizeof id);
      std::string const bytes = m_answer(id);
      EXPECT_EQ(send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                ssize_t(bytes.size()));
      kept.push_back(std::move(connection));
    }
  }

  BoundSocket const m_socket{"127.0.0.1", true};
  Answer const m_answer;
  std::atomic<bool> m_ended{false};
  std::thread m_thread;
};

std::string wordOf(std::uint32_t value)
{
  return std::string(reinterpret_cast<char const*>(&value), sizeof value);
}

// In the order of bytes of this machine.
std::string replyOf(char minor, bool more, std::size_t claimed, std::string const& body,
                    char type = 1)
{
  std::string header = "GIOP\1";
  header += minor;
  header += static_cast<char>(more ? 3 : 1);
  header += type;
  return header + wordOf(static_cast<std::uint32_t>(claimed)) + body;
}

// Whether the call fails, and other calls are answered meanwhile.
void expectOneFailure(OrbTest::Probe_ptr lied, OrbTest::Probe_ptr honest)
{
  auto failing =
      std::async(std::launch::async,
                 [&] { EXPECT_THROW(CORBA::String_var(lied->echo("x")), CORBA::SystemException); });
  auto other = std::async(std::launch::async,
                          [&]
                          {
                            for (int i = 0; i < 100; ++i)
                              CORBA::String_var(honest->echo("x"));
                          });
  for (auto* each : {&other, &failing})
    if (each->wait_for(std::chrono::seconds(10)) != std::future_status::ready)
    {
      ADD_FAILURE() << "no call goes on";
      std::_Exit(1); // as it would wait for the calls
    }
  EXPECT_NO_THROW(other.get());
}

class CallingConnectionTest : public testing::Test
{
protected:
  ProductRoot const m_root{serviceAt(freePort())};
  ServingProcess m_service;
  Client m_client;
  OrbTest::Probe_var m_honest = probeOf(m_client.orb, "Probe");
};

} // namespace

// The ORB would read such an answer to its end with everything else locked, and
// lock itself out when that does not come.
TEST_F(CallingConnectionTest, halfAnAnswerToNoRequestStopsNoOtherCall)
{
  for (char const minor : {0, 1})
  {
    LyingServer const server(
        [&](std::uint32_t id)
        {
          return replyOf(minor, false, 20000,
                         wordOf(0) + wordOf(id + 1) + wordOf(0) + std::string(8000, 'x'));
        });
    expectOneFailure(server.probe(minor == 0 ? "1.0" : "1.1"), m_honest);
  }
}

TEST_F(CallingConnectionTest, answersThatAreMixedUpFailTheirCallOnly)
{
  auto const begin = [](std::uint32_t id)
  { return replyOf(2, true, 12, wordOf(id) + wordOf(0) + wordOf(0)); };
  auto const fragment = [](std::uint32_t id, bool more)
  { return replyOf(2, more, 12, wordOf(id) + std::string(8, 'x'), 7); };
  for (LyingServer::Answer const& answer :
       std::initializer_list<LyingServer::Answer>{
           [&](std::uint32_t id) { return begin(id) + begin(id) + fragment(id, false); },
           [&](std::uint32_t id) { return begin(id) + fragment(id + 2, false); },
           [&](std::uint32_t id) { return begin(id + 2) + fragment(id + 2, false); },
           [&](std::uint32_t id) { return fragment(id, false) + begin(id); },
           [&](std::uint32_t id) { return begin(id) + replyOf(2, false, 0, "", 5); },
           [&](std::uint32_t id) { return begin(id) + replyOf(1, false, 4, wordOf(id), 7); }})
  {
    LyingServer const server(answer);
    expectOneFailure(server.probe("1.2"), m_honest);
  }
}
