// Sets the wall clock of a service, and of the command that calls it, by an hour and by
// ten years, forward and back, while explorers, expiry, iterators, timers and calls go on.
// The monotonic clock runs as ever, or ahead where minutes are to pass.
//
// Usage: clocks ROUNDS SEED
//
// A round sets the clock once. Exit code 0 when all held, 1 when not, 2 when nothing could
// be tried.

#include "tests/support/Fleet.h"
#include "tests/support/RemoteClient.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>

namespace
{

using std::chrono::seconds;
using tqtest::FleetHost;
using tqtest::Outcome;
using namespace tqtest::client;
using Tick = std::chrono::steady_clock;

constexpr char HOST[] = "4master";
constexpr char CLOCK_AUTHORITY[] = "clocked";
constexpr std::int64_t AN_HOUR = 3600;
constexpr std::int64_t TEN_YEARS = 3652L * 86400;
constexpr std::int64_t SETTINGS[] = {0, AN_HOUR, -AN_HOUR, TEN_YEARS, -TEN_YEARS};
constexpr seconds PASS(6);         // one of the explorers has come by then
constexpr seconds IDLE_LIMIT(330); // and an iterator that nobody uses is gone
constexpr seconds PROMPT(20);      // for an answer, on a busy machine

class ClockCampaign
{
public:
  explicit ClockCampaign(unsigned seed)
      : m_random(seed), m_network(tqtest::makeLoopbackNetwork()), m_host(*m_network, 0, HOST)
  {
    m_host.configure(std::string("SERVER = ") + HOST +
                         "\nORB_PORT.DiscoveryService = " + std::to_string(tqtest::freePort()) +
                         "\nHOST_ADDRESS." + HOST + " = " + m_host.address() + '\n',
                     nullptr);
  }

  bool begin()
  {
    if (!m_host.start({{"TQ_FIXTURE_PACED_INTERVAL", "1"}}))
      return false;
    m_client = std::make_unique<Client>(m_host.root(), HOST);
    return m_client->connected();
  }

  std::string log() const { return m_host.log(); }

  void round(std::int64_t to)
  {
    std::int64_t const from = m_setting;
    std::string const subject = "s" + std::to_string(++m_rounds);
    put(subject);
    Remote::DiscoveryIterator_var const used = openWalk();
    Remote::DiscoveryIterator_var const idle = openWalk();

    std::size_t const runs = explorations();
    m_host.setClock(seconds(to));
    m_setting = to;
    m_what = "from " + std::to_string(from) + " to " + std::to_string(to) + ": ";

    expect(isUsable(used), "an iterator is gone");
    expectListed(subject, to - from);
    m_host.jumpAhead(PASS);
    // One whose last run lies ahead waits for that time.
    bool const isDue = to >= m_lastRun;
    if (isDue)
    {
      expect(tqtest::eventually([&] { return explorations() > runs; }, PROMPT),
             "explorers do not run");
      m_lastRun = to;
    }
    expectQuiet();
    expect(isDue || explorations() == runs, "an explorer runs before its time");
    expect(goesWhenIdle(idle), "an iterator stays");
    expectCommand();
    expectCallsEnd(from);
  }

  void end()
  {
    m_client.reset();
    auto const start = Tick::now();
    expect(m_host.stop() == 0, "it does not stop in order");
    expect(Tick::now() - start < PROMPT, "its stop takes long");
    Outcome const verified = m_host.tqdiscoctl({"db", "verify"});
    expect(verified.exitCode == 0, "the database: " + verified.output);
  }

  int report(double took, unsigned seed) const
  {
    for (std::string const& flaw : m_flaws)
      std::printf("BROKEN: %s\n", flaw.c_str());
    if (!m_flaws.empty())
    {
      std::string const text = m_host.log();
      std::printf("the log ends with:\n%s\n",
                  text.substr(text.size() - std::min<std::size_t>(text.size(), 3000)).c_str());
    }
    std::printf("%d times the clock was set, %d looks, %zu broken, %.0f s, seed %u\n", m_rounds,
                m_looks, m_flaws.size(), took, seed);
    return m_flaws.empty() ? 0 : 1;
  }

  std::int64_t another()
  {
    for (;;)
      if (std::int64_t const to = SETTINGS[m_random() % std::size(SETTINGS)]; to != m_setting)
        return to;
  }

private:
  void expect(bool holds, std::string const& otherwise)
  {
    ++m_looks;
    if (!holds)
      m_flaws.push_back(m_what + otherwise);
  }

  // Valid for an hour and a quarter.
  void put(std::string const& subject)
  {
    auto const start = Tick::now();
    DiscoveryStatus status = DS_LOGIC_ERROR;
    try
    {
      status = m_client->store(subject, CLOCK_AUTHORITY, "<x/>");
    }
    catch (CORBA::Exception const&)
    {
    }
    expect(status == DS_SUCCESS && Tick::now() - start < PROMPT, "a put fails");
  }

  void expectListed(std::string const& subject, std::int64_t passed)
  {
    std::size_t found = 0;
    try
    {
      found = m_client->subjects(CLOCK_AUTHORITY).count(subject);
    }
    catch (CORBA::Exception const& exception)
    {
      expect(false, std::string("a list ends with ") + exception._name());
      return;
    }
    if (passed <= AN_HOUR)
      expect(found == 1, "a discovery has gone before its time");
    else if (passed > 2 * AN_HOUR)
      expect(found == 0, "a discovery outlives its time");
  }

  Remote::DiscoveryIterator_ptr openWalk()
  {
    return (*m_client)->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", CLOCK_AUTHORITY);
  }

  static bool isUsable(Remote::DiscoveryIterator_ptr walk)
  {
    try
    {
      walk->pageSize(100);
      return true;
    }
    catch (CORBA::Exception const&)
    {
      return false;
    }
  }

  // To look at it is to use it.
  bool goesWhenIdle(Remote::DiscoveryIterator_ptr walk)
  {
    for (int attempt = 0; attempt < 5; ++attempt)
    {
      m_host.jumpAhead(IDLE_LIMIT);
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      if (!isUsable(walk))
        return true;
    }
    return false;
  }

  std::size_t explorations() const { return m_host.notes("paced").size(); }

  // Nothing goes round and round: in a second it takes the processor for less than half.
  void expectQuiet()
  {
    double least = 1;
    for (int attempt = 0; attempt < 5 && least >= 0.5; ++attempt)
    {
      double const before = processorSeconds();
      std::this_thread::sleep_for(seconds(1));
      least = std::min(least, processorSeconds() - before);
    }
    expect(least < 0.5, "it is busy with nothing");
  }

  double processorSeconds()
  {
    std::string const stat = readText("/proc/" + std::to_string(m_host.process().pid()) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
      fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }

  // The command goes by the service's clocks.
  std::unique_ptr<Process> startCommand(std::vector<std::string> const& words)
  {
    auto environment = m_host.clocks();
    environment["TESSARINE_ROOT"] = m_host.root();
    return std::make_unique<Process>(TQ_BIN_DIR "/tqdiscoctl", words, environment);
  }

  void expectCommand()
  {
    auto const command = startCommand({"query"});
    expect(command->wait(PROMPT) && command->exitCode() == 0, "the command fails");
  }

  // A call that gets no answer ends in its time, also when the clock is set meanwhile.
  void expectCallsEnd(std::int64_t other)
  {
    m_host.process().freeze();
    auto const command = startCommand({"--timeout", "3", "query"});
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    m_host.setClock(seconds(other));
    bool const ended = command->wait(PROMPT);
    expect(ended && command->exitCode() == 5, "a call does not end in its time");
    m_host.setClock(seconds(m_setting));
    m_host.process().sendSignal(SIGCONT);
  }

  std::mt19937 m_random;
  std::unique_ptr<tqtest::FleetNetwork> m_network;
  FleetHost m_host;
  std::unique_ptr<Client> m_client;
  std::int64_t m_setting = 0;
  std::int64_t m_lastRun = 0; // the setting at which explorers ran last
  int m_rounds = 0;
  int m_looks = 0;
  std::string m_what;
  std::vector<std::string> m_flaws;
};

} // namespace

int main(int argc, char** argv)
{
  if (argc != 3)
  {
    std::cerr << "usage: clocks ROUNDS SEED\n";
    return 2;
  }
  try
  {
    auto const start = Tick::now();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    auto const seed = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    ClockCampaign campaign(seed);
    if (!campaign.begin())
    {
      std::cerr << "clocks: no service: " << campaign.log() << '\n';
      return 2;
    }
    // Ten years forward and back come first, since few may be asked for.
    int const rounds = std::atoi(argv[1]);
    for (int i = 0; i < rounds; ++i)
      campaign.round(i == 0 ? TEN_YEARS : i == 1 ? 0 : campaign.another());
    campaign.end();
    return campaign.report(std::chrono::duration<double>(Tick::now() - start).count(), seed);
  }
  catch (CORBA::Exception const& exception)
  {
    std::cerr << "clocks: " << exception._name() << '\n';
  }
  catch (std::exception const& exception)
  {
    std::cerr << "clocks: " << exception.what() << '\n';
  }
  return 2;
}
