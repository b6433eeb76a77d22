// Starts and stops a service again and again, after a put and a show and in the
// middle of the start, and looks whether each end is in order.
//
// Usage: stops [--stops N] [--seed N] [--commands EACH] [--early EACH]
//
// In every EACHth round the operator's commands put and show, and not this
// process; in every EACHth the stop comes during the start. 0 is never.
//
// Exit code 0 when each was in order, 1 when not, 2 when nothing could be tried.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"
#include "tests/support/SealedPayload.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>

namespace
{

using tqtest::LiveService;
namespace client = tqtest::client;
namespace fs = std::filesystem;

constexpr char STOPPED_SUBJECT[] = "subject";
constexpr char STOPPED_AUTHORITY[] = "stops";
constexpr char COMMANDED_AUTHORITY[] = "commands"; // puts have a type of their own
constexpr int REPORT_EVERY = 1000;

struct StopOptions
{
  long stops = 1000;
  unsigned seed = 0; // of the clock
  long commands = 8;
  long early = 8;
};

std::optional<StopOptions> parseStopOptions(int argc, char** argv)
{
  StopOptions options;
  if (argc % 2 == 0)
    return std::nullopt;
  options.seed = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
  for (int i = 1; i < argc; i += 2)
  {
    std::string const word = argv[i];
    long const value = std::strtol(argv[i + 1], nullptr, 10);
    if (word == "--stops")
      options.stops = value;
    else if (word == "--seed")
      options.seed = static_cast<unsigned>(value);
    else if (word == "--commands")
      options.commands = value;
    else if (word == "--early")
      options.early = value;
    else
      return std::nullopt;
  }
  return options;
}

// Whether the process keeps SIGTERM for the thread that takes it. It cannot
// before its own code runs.
bool keepsTerm(pid_t pid)
{
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("SigBlk:"))
      return (std::stoull(line.substr(7), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
  return false;
}

class StopCampaign
{
public:
  explicit StopCampaign(StopOptions const& options) : m_options(options), m_random(options.seed)
  {
    using Clock = std::chrono::steady_clock;
    auto const begin = Clock::now();
    if (!m_service.start())
      throw std::runtime_error("the service does not start: " + m_service.log());
    m_startTime = Clock::now() - begin;
    if (m_service.stop() != 0)
      throw std::runtime_error("the first stop is not in order: " + m_service.log());
  }

  int run()
  {
    auto const start = std::chrono::steady_clock::now();
    for (long round = 1; round <= m_options.stops; ++round)
    {
      if (isTurn(round, m_options.early, 1))
        stopEarly();
      else
        stopAfterUse(isTurn(round, m_options.commands, 0));
      if (round % REPORT_EVERY == 0)
        report(start);
    }
    return report(start);
  }

private:
  static bool isTurn(long round, long each, long which)
  {
    return each > 0 && round % each == which % each;
  }

  void broken(std::string const& what)
  {
    if (++m_broken[what] > 3)
      return;
    std::string const log = m_service.log();
    std::printf("%s; the log ends with:\n%s\n", what.c_str(),
                log.substr(log.size() - std::min<std::size_t>(log.size(), 2000)).c_str());
    std::fflush(stdout);
  }

  void expectOrder(std::string const& when, int code)
  {
    if (code != 0)
      broken("a stop " + when + " ends with " + std::to_string(code));
    else if (m_service.log().find("main: Stopped") == std::string::npos)
      broken("a stop " + when + " is not told of");
  }

  // At any moment of the start. Before the program's own first step the signal
  // ends the process, as it ends every other.
  void stopEarly()
  {
    Process& process = m_service.launch();
    if (m_random() % 2 == 0)
      while (process.running() && !keepsTerm(process.pid()))
        ;
    std::this_thread::sleep_for(m_startTime / 1000 * (m_random() % 1200));
    bool const keeps = keepsTerm(process.pid());
    process.sendSignal(SIGTERM);
    int const code = process.wait() ? process.exitCode() : -1;
    if (!keeps && code == 128 + SIGTERM)
    {
      ++m_beforeAll;
      if (!m_service.log().empty())
        broken("the signal kills what has begun");
      return;
    }
    ++m_early;
    expectOrder("during the start", code);
  }

  void stopAfterUse(bool byCommands)
  {
    if (!m_service.start())
    {
      broken("the service does not start");
      m_service.stop();
      return;
    }
    std::string const payload = tqtest::sealedPayload(STOPPED_SUBJECT, ++m_number, 400);
    if (byCommands)
      useCommands(payload);
    else
      useClient(payload);
    std::this_thread::sleep_for(std::chrono::microseconds(m_random() % 2000));
    int const code = m_service.stop();
    ++m_afterUse;
    expectOrder("after put and show", code);
  }

  void useClient(std::string const& payload)
  {
    std::string answer;
    try
    {
      if (!m_client)
        m_client = std::make_unique<client::Client>(m_service.root(), LiveService::NAME);
      if (!m_client->connect())
        answer = "no connection";
      else if (client::DiscoveryStatus const status =
                   m_client->store(STOPPED_SUBJECT, STOPPED_AUTHORITY, payload);
               status != client::DS_SUCCESS)
        answer = "put with status " + std::to_string(status);
      else if (m_client->subjects(STOPPED_AUTHORITY).size() != 1)
        answer = "a list without it";
      else if (m_client->read(STOPPED_SUBJECT, STOPPED_AUTHORITY) != payload)
        answer = "something else read";
    }
    catch (CORBA::Exception const& exception)
    {
      answer = exception._name();
    }
    if (!answer.empty())
      broken("before the stop: " + answer);
  }

  void useCommands(std::string const& payload)
  {
    std::string const file = m_service / "payload";
    writeText(file, payload);
    runCommand({"put", STOPPED_SUBJECT, COMMANDED_AUTHORITY, file, "--unchecked"});
    tqtest::Outcome const shown =
        runCommand({"show", STOPPED_SUBJECT, COMMANDED_AUTHORITY, "--raw"});
    if (shown.output != payload)
      broken("the command shows something else");
  }

  tqtest::Outcome runCommand(LiveService::Words const& words)
  {
    tqtest::Outcome outcome = m_service.tqdiscoctl(words);
    ++m_commandEnds;
    if (outcome.exitCode != 0)
      broken("tqdiscoctl " + words[0] + " ends with " + std::to_string(outcome.exitCode) + ": " +
             outcome.errors);
    return outcome;
  }

  int report(std::chrono::steady_clock::time_point start) const
  {
    long sum = 0;
    for (auto const& [what, count] : m_broken)
    {
      std::printf("BROKEN, %ld times: %s\n", count, what.c_str());
      sum += count;
    }
    std::printf("%ld stops after put and show, %ld during the start, %ld signals before the "
                "program began, %ld ends of commands: %ld broken, %.0f s, seed %u\n",
                m_afterUse, m_early, m_beforeAll, m_commandEnds, sum,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                m_options.seed);
    std::fflush(stdout);
    if (sum != 0)
      return 1;
    return m_afterUse == 0 && m_early == 0 ? 2 : 0;
  }

  StopOptions const m_options;
  std::mt19937 m_random;
  LiveService m_service;
  std::unique_ptr<client::Client> m_client; // one ORB for all rounds
  std::chrono::steady_clock::duration m_startTime{};
  std::uint64_t m_number = 0; // of the payload
  long m_afterUse = 0;
  long m_early = 0;
  long m_beforeAll = 0;
  long m_commandEnds = 0;
  std::map<std::string, long> m_broken;
};

} // namespace

int main(int argc, char** argv)
{
  auto const options = parseStopOptions(argc, argv);
  if (!options)
  {
    std::fprintf(stderr, "usage: stops [--stops N] [--seed N] [--commands EACH] [--early EACH]\n");
    return 2;
  }
  try
  {
    return StopCampaign(*options).run();
  }
  catch (std::exception const& exception)
  {
    std::fprintf(stderr, "stops: %s\n", exception.what());
    return 2;
  }
}
