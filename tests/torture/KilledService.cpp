#include "tests/torture/KilledService.h"

#include "tests/support/LiveService.h"
#include "tests/torture/DatabaseJudge.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace tqtorture
{
namespace
{

namespace fs = std::filesystem;
using tqtest::LiveService;

constexpr unsigned CLIENTS = 4;

class Campaign
{
public:
  Campaign(long kills, unsigned longestLife, std::mt19937& random)
      : m_kills(kills), m_longestLife(longestLife), m_random(random)
  {
  }

  KillResult run()
  {
    if (!m_service.start())
      throw std::runtime_error("the service does not start: " + m_service.log());
    for (unsigned i = 0; i < CLIENTS; ++i)
      m_clients.push_back(std::make_unique<Process>(
          TQ_BIN_DIR "/torture_client",
          std::vector<std::string>{m_service.root(), LiveService::NAME, std::to_string(i),
                                   std::to_string(m_random())}));
    while (m_result.kills < m_kills)
      round();
    for (auto const& client : m_clients)
    {
      client->sendSignal(SIGKILL);
      client->wait();
    }
    if (m_service.stop() != 0)
      ++m_result.broken["the last stop was not in order"];
    note();
    m_service.launch();
    start();
    look();
    m_service.stop();
    return m_result;
  }

private:
  void start()
  {
    if (!m_service.process().awaitError("main: Started, version"))
      throw std::runtime_error("the service does not start again: " + m_service.log());
  }

  // A client ends its line about a write that got no answer with "lost", and
  // says nothing more until the service is back.
  bool allIdle() const
  {
    for (auto const& client : m_clients)
    {
      std::string const said = client->output();
      if (!said.ends_with("lost\n"))
        return false;
    }
    return true;
  }

  // Before, one that is slow to start would go on trying to reach the service.
  bool allHaveMetIt() const
  {
    return std::none_of(m_clients.begin(), m_clients.end(),
                        [](auto const& client) { return client->output().empty(); });
  }

  std::string lastWords() const
  {
    std::string text;
    for (auto const& client : m_clients)
    {
      std::string const said = client->output();
      text += "\n  said: ..." + said.substr(said.size() - std::min<std::size_t>(said.size(), 60)) +
              "\n  errors: " + client->errors();
    }
    return text;
  }

  std::size_t saidByAll() const
  {
    std::size_t size = 0;
    for (auto const& client : m_clients)
      size += client->output().size();
    return size;
  }

  void round()
  {
    std::size_t const before = saidByAll();
    if (!tqtest::eventually([&] { return saidByAll() > before && allHaveMetIt(); }))
      throw std::runtime_error("no client writes; the first says: " + m_clients[0]->errors());
    std::this_thread::sleep_for(
        std::chrono::microseconds(m_random() % std::max(1U, m_longestLife)));
    m_service.process().sendSignal(SIGKILL);
    m_service.process().wait();
    if (m_service.process().exitCode() != 128 + SIGKILL)
      ++m_result.broken["the service ended by itself, with " +
                        std::to_string(m_service.process().exitCode())];
    ++m_result.kills;
    if (!tqtest::eventually([&] { return allIdle(); }))
      throw std::runtime_error("a client does not notice the death of the service" + lastWords());
    note();
    m_service.launch();
    start();
    look();
    release();
  }

  // Takes what the clients have said since the last time.
  void note()
  {
    m_taken.resize(CLIENTS, 0);
    for (unsigned i = 0; i < CLIENTS; ++i)
    {
      std::string const said = m_clients[i]->output();
      std::size_t const end = said.rfind('\n') + 1; // a killed one may end in a word
      if (end > m_taken[i])
        m_result.ledger.note(said.substr(m_taken[i], end - m_taken[i]));
      m_taken[i] = std::max(end, m_taken[i]);
    }
  }

  void look()
  {
    std::string const directory = m_service.database();
    for (auto const& entry : fs::directory_iterator(directory))
      if (entry.path().extension() == ".updating")
        ++m_result.broken["the start leaves temporary files"];
    for (std::string const& name : m_result.ledger.names())
    {
      bool empty = false;
      std::string const state = stateOfWritten(directory, name, empty);
      ++m_result.looks;
      if (std::string const flaw = m_result.ledger.judge(name, state, empty); !flaw.empty())
        ++m_result.broken[flaw];
    }
  }

  void release()
  {
    for (auto const& client : m_clients)
      client->sendSignal(SIGUSR1);
  }

  long m_kills;
  unsigned m_longestLife;
  std::mt19937& m_random;
  LiveService m_service;
  std::vector<std::unique_ptr<Process>> m_clients;
  std::vector<std::size_t> m_taken;
  KillResult m_result;
};

} // namespace

KillResult killService(long kills, unsigned longestLife, std::mt19937& random)
{
  return Campaign(kills, longestLife, random).run();
}

} // namespace tqtorture
