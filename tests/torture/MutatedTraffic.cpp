// Two services, the command, clients of this ORB and of another talk to one another,
// and what they say is changed on its way, in both directions. Nobody may crash, hang
// or grow without bound, and what is stored stays whole.
//
// Usage: mutated_traffic plain|encrypted SECONDS SEED
//
// Exit code 0 when all held, 1 when not, 2 when nothing could be tried.

#include "tests/support/Fleet.h"
#include "tests/support/SealedPayload.h"
#include "tests/torture/MutatingProxy.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>

namespace
{

using namespace tqtorture;
using std::chrono::seconds;
using tqtest::FleetHost;
using tqtest::Outcome;
using Instant = std::chrono::steady_clock;

constexpr char MASTER[] = "4master";
constexpr char MEMBER[] = "95web";
constexpr char UNTOUCHED[] = "untouched";
constexpr char MUTATED[] = " mutated m"; // in the names of the clients' files
constexpr char COMMAND_SECONDS[] = "8";
// Beside those: for a start and an end under load, and time-outs of the system.
constexpr seconds COMMAND_GRACE(45);
// For the calls that a client has begun: each ends in 30 seconds.
constexpr seconds CLIENT_GRACE(100);
constexpr long MOST_MEMORY = 600L << 10; // KiB
constexpr long MOST_GROWTH = 200L << 10;

class MutatedTraffic
{
public:
  MutatedTraffic(MutatingProxy::Traffic traffic, std::uint32_t seed)
      : m_isPlain(traffic == MutatingProxy::PLAIN),
        m_seed(seed),
        m_random(seed),
        m_network(tqtest::makeLoopbackNetwork()),
        m_master(*m_network, 0, MASTER),
        m_member(*m_network, 1, MEMBER),
        m_proxy({m_master.address(), m_member.address()}, m_port,
                {traffic, seed, m_isPlain ? 6U : 24U, std::chrono::milliseconds(1500)})
  {
    std::optional<tqtest::CertificateAuthority> authority;
    if (!m_isPlain)
      authority.emplace();
    std::string entries = std::string("SERVER = ") + MASTER +
                          "\nORB_PORT.DiscoveryService = " + std::to_string(m_port) +
                          "\nREPORT_CLIENT_DISCOVERIES = yes\nEXPLORER_INTERVAL.host = 1s\n"
                          "EXPLORER_INTERVAL.service = 1s\nEXPLORER_INTERVAL.filesystem = 1s\n";
    for (FleetHost const* const host : {&m_master, &m_member})
      entries += "HOST_ADDRESS." + host->name() + " = " + host->address() + '\n';
    for (FleetHost* const host : {&m_master, &m_member})
      host->configure(entries, authority ? &*authority : nullptr);
  }

  bool begin()
  {
    auto environment = through();
    environment["TQ_CALL_FROM"] = m_master.address();
    if (!m_master.start(environment))
      return false;
    environment["TQ_CALL_FROM"] = m_member.address();
    return m_member.start(environment) && m_member.awaitLog("Successfully registered explorers") &&
           m_master.tqdiscoctl({"put", UNTOUCHED, "kept", "Word=whole"}).exitCode == 0;
  }

  void attack(seconds time)
  {
    m_proxy.meddle();
    auto const end = Instant::now() + time;
    startClients(time);
    bool isHalf = false;
    while (Instant::now() < end)
    {
      command();
      if (!isHalf && Instant::now() > end - time / 2)
      {
        isHalf = true;
        m_halfMemory = memoryOf(m_master, "VmRSS:");
      }
    }
    for (auto const& [name, client] : m_clients)
    {
      if (!client->wait(CLIENT_GRACE))
        flaw(name + " hangs");
      else if (client->exitCode() == 1 || client->exitCode() >= 128)
        flaw(name + " ends with " + std::to_string(client->exitCode()) + ": " + client->output() +
             client->errors());
      std::printf("%s: %s", name.c_str(), client->output().c_str());
    }
    m_proxy.relent();
  }

  void judge()
  {
    for (FleetHost* const host : {&m_master, &m_member})
    {
      if (!host->running())
      {
        flaw(host->name() + " died with " + std::to_string(host->process().exitCode()));
        continue;
      }
      long const most = memoryOf(*host, "VmHWM:");
      std::printf("%s: %ld KiB at most, %ld threads\n", host->name().c_str(), most,
                  memoryOf(*host, "Threads:"));
      if (most > MOST_MEMORY)
        flaw(host->name() + " has taken " + std::to_string(most) + " KiB");
      expectAnswered(*host);
      if (host->log().find("Assertion failed") != std::string::npos)
        flaw(host->name() + " met a failed assertion");
    }
    if (m_master.running() && memoryOf(m_master, "VmRSS:") > m_halfMemory + MOST_GROWTH)
      flaw("the master has grown by more than " + std::to_string(MOST_GROWTH) + " KiB");
    for (FleetHost* const host : {&m_member, &m_master})
    {
      if (host->running() && host->stop() != 0)
        flaw(host->name() + " does not stop in order");
      // Nothing is there where nothing was put.
      if (std::filesystem::exists(host->database()))
        expectVerified(*host);
    }
    if (!m_isPlain)
      expectOnlyWhatWasPut();
  }

  int report(std::string const& what, double took)
  {
    auto const counts = m_proxy.counts();
    for (std::string const& each : m_flaws)
      std::printf("BROKEN: %s\n", each.c_str());
    if (!m_flaws.empty())
      for (FleetHost const* const host : {&m_master, &m_member})
      {
        std::string const log = host->log();
        std::printf("---- %s ends with\n%s\n", host->name().c_str(),
                    log.substr(log.size() - std::min<std::size_t>(log.size(), 3000)).c_str());
      }
    std::printf("%s: %ld connections, %ld messages, %ld changed; %ld commands; %zu broken, %.0f s, "
                "seed %u\n",
                what.c_str(), counts.connections, counts.messages, counts.changed, m_commands,
                m_flaws.size(), took, m_seed);
    if (counts.changed == 0)
      return 2;
    return m_flaws.empty() ? 0 : 1;
  }

  std::string logs() const { return m_master.log() + m_member.log(); }

private:
  // The ORB loses what it has read of a reference that turns out to be broken, so leaks
  // are not looked for.
  static Process::Environment through()
  {
    return {{"LD_PRELOAD", TQ_FIXTURE_DIR "/libcall_from.so"},
            {"LSAN_OPTIONS", "detect_leaks=0"},
            {"TQ_CALL_THROUGH", std::to_string(MutatingProxy::BEYOND)},
            {"ASAN_OPTIONS", "verify_asan_link_order=0"}}; // as it comes first
  }

  void flaw(std::string const& text) { m_flaws.push_back(text); }

  static long memoryOf(FleetHost& host, std::string const& what)
  {
    std::ifstream status("/proc/" + std::to_string(host.process().pid()) + "/status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with(what))
        return std::stol(line.substr(what.size()));
    return -1;
  }

  void startClients(seconds time)
  {
    std::string const long_ = std::to_string(time.count());
    auto environment = through();
    for (unsigned i = 0; i < 2; ++i)
    {
      environment["TQ_CALL_FROM"] = i == 0 ? m_master.address() : m_member.address();
      FleetHost const& from = i == 0 ? m_master : m_member;
      m_clients.emplace_back(
          "the client at " + from.name(),
          std::make_unique<Process>(TQ_BIN_DIR "/mutated_client",
                                    std::vector<std::string>{from.root(), MASTER, long_,
                                                             std::to_string(m_seed + i),
                                                             m_isPlain ? "any" : "sealed"},
                                    environment));
    }
    if (!m_isPlain)
      return;
    // Another ORB, which has no TLS.
    environment.erase("TQ_CALL_FROM"); // Tcl calls connect again and again until it is
    environment["TQ_BIN_DIR"] = TQ_BIN_DIR;
    m_clients.emplace_back("the client of another ORB",
                           std::make_unique<Process>(
                               "/usr/bin/tclsh8.6",
                               std::vector<std::string>{
                                   TQ_SOURCE_DIR "/tests/torture/other_orb.tcl", m_master.address(),
                                   std::to_string(m_port), long_, std::to_string(m_seed)},
                               environment));
  }

  // One at a time, and each ends in its time whatever it is told.
  void command()
  {
    std::string const number = std::to_string(m_random() % 5);
    std::vector<std::vector<std::string>> const all = {
        {"status"},
        {"status", "--json"},
        {"query"},
        {"query", "--json", "--type", "remotepull"},
        {"hosts"},
        {"show", MEMBER, "host"},
        {"show", MEMBER, "volume"},
        {"show", "p" + number, "hand", "--json"},
        {"items"},
        {"items", "-a", "volume"},
        {"filters"},
        {"push"},
        {"put", "p" + number, "hand", "Number=" + number, "Word=some"}};
    auto words = all[m_random() % all.size()];
    words.insert(words.begin(), {"--timeout", COMMAND_SECONDS});
    bool const fromMaster = m_random() % 2 == 0;
    FleetHost const& host = fromMaster ? m_master : m_member;
    auto environment = through();
    environment["TQ_CALL_FROM"] = host.address();
    environment["TESSARINE_ROOT"] = host.root();
    Process process(TQ_BIN_DIR "/tqdiscoctl", words, environment);
    ++m_commands;
    auto const limit = seconds(std::atoi(COMMAND_SECONDS)) + COMMAND_GRACE;
    if (!process.wait(limit))
      flaw("tqdiscoctl " + words[2] + " hangs");
    else if (process.exitCode() >= 100)
      flaw("tqdiscoctl " + words[2] + " ends with " + std::to_string(process.exitCode()) + ": " +
           process.errors());
  }

  // Nobody can tell that a payload was changed on its way without TLS, and it is stored as
  // it came; no other complaint is in order.
  void expectVerified(FleetHost& host)
  {
    constexpr char CAME_SO[] = "has a payload that is no XML";
    Outcome const verified = host.tqdiscoctl({"db", "verify"});
    std::istringstream lines(verified.output + verified.errors);
    for (std::string line; verified.exitCode != 0 && std::getline(lines, line);)
      if (line.find('"') != std::string::npos &&
          !(m_isPlain && line.find(CAME_SO) != std::string::npos))
        flaw(host.name() + "'s database: " + line);
    if (verified.exitCode != 0 && !m_isPlain)
      flaw(host.name() + "'s database: db verify ends with " + std::to_string(verified.exitCode));
  }

  // By somebody whose calls nobody has changed. What the others have open counts against
  // their addresses for a while.
  void expectAnswered(FleetHost& host)
  {
    for (std::vector<std::string> const& words :
         {std::vector<std::string>{"show", UNTOUCHED, "kept"},
          std::vector<std::string>{"put", "afterwards", "kept", "Word=new"},
          std::vector<std::string>{"show", "afterwards", "kept"}})
    {
      Outcome const outcome = tqtest::runProgram(TQ_BIN_DIR "/tqdiscoctl", words,
                                                 {{"TESSARINE_ROOT", host.root()},
                                                  {"LD_PRELOAD", TQ_FIXTURE_DIR "/libcall_from.so"},
                                                  {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                                                  {"TQ_CALL_FROM", m_network->address(4)}});
      if (outcome.exitCode != 0)
        flaw("\"" + words[0] + ' ' + words[1] + "\" from " + host.name() + " ends with " +
             std::to_string(outcome.exitCode) + ": " + outcome.errors);
      else if (words[0] == "show" && words[1] == UNTOUCHED &&
               outcome.output.find("whole") == std::string::npos)
        flaw("what nobody touched reads: " + outcome.output);
    }
  }

  // What arrives with a change is no record of TLS.
  void expectOnlyWhatWasPut()
  {
    std::error_code none;
    long found = 0;
    for (auto const& entry : std::filesystem::directory_iterator(m_master.database(), none))
    {
      std::string const name = entry.path().stem();
      auto const at = name.find(MUTATED);
      if (entry.path().extension() != ".dat" || at == std::string::npos)
        continue;
      ++found;
      std::string const subject = name.substr(at + sizeof MUTATED - 2);
      std::uint64_t number = 0;
      if (auto const wrong =
              tqtest::flawOf(tqtest::outOfXml(readText(entry.path())), subject, number);
          !wrong.empty())
        flaw("stored is " + subject + ", " + wrong);
    }
    std::printf("%ld payloads of the clients are stored\n", found);
    if (found == 0)
      flaw("nothing of the clients is stored");
  }

  bool const m_isPlain;
  std::uint32_t const m_seed;
  std::mt19937 m_random;
  std::unique_ptr<tqtest::FleetNetwork> m_network;
  unsigned short const m_port = tqtest::freePort();
  FleetHost m_master;
  FleetHost m_member;
  MutatingProxy m_proxy;
  std::vector<std::pair<std::string, std::unique_ptr<Process>>> m_clients; // with their names
  long m_halfMemory = 0;
  long m_commands = 0;
  std::vector<std::string> m_flaws;
};

} // namespace

int main(int argc, char** argv)
{
  std::string const what = argc == 4 ? argv[1] : "";
  if (what != "plain" && what != "encrypted")
  {
    std::cerr << "usage: mutated_traffic plain|encrypted SECONDS SEED\n";
    return 2;
  }
  try
  {
    auto const start = Instant::now();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    MutatedTraffic traffic(what == "plain" ? MutatingProxy::PLAIN : MutatingProxy::ENCRYPTED,
                           static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10)));
    if (!traffic.begin())
    {
      std::cerr << "mutated_traffic: the services do not start\n" << traffic.logs();
      return 2;
    }
    traffic.attack(seconds(std::atol(argv[2])));
    traffic.judge();
    return traffic.report(what, std::chrono::duration<double>(Instant::now() - start).count());
  }
  catch (std::exception const& exception)
  {
    std::cerr << "mutated_traffic: " << exception.what() << '\n';
    return 2;
  }
}
