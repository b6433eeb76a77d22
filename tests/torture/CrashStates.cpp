// What is left of discoveries when the power goes in the middle of an operation:
// the operations of the real library are recorded, every state that a disk may
// then hold is put into a directory, and the real library is started on it.
//
// Usage: crash_states [--scenario NAME]... [--most N] [--seed N]
//                     [--examples N] [--keep NUMBER FOLDER]
//
// Exit code 0 when each state is one that may be left, 1 when not, 2 when
// nothing could be tried.

#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/DiskStates.h"
#include "tests/torture/Scenarios.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace
{

using namespace tqtorture;
namespace fs = std::filesystem;

struct Options
{
  std::set<std::string> scenarios; // only these; or none
  StateBounds bounds;
  long examples = 2; // of each kind of failure of a scenario
  long keep = -1;    // the state of that number
  std::string folder;
};

// Counts of states by what they are.
struct Tally
{
  long states = 0;
  long whole = 0;
  long named = 0;
  long broken = 0;
  bool sampled = false;
};

// Before and after the acknowledgement, by kind.
using Kindly = std::map<std::string, std::map<std::string, long>>;

class Campaign
{
public:
  explicit Campaign(Options options) : m_options(std::move(options))
  {
    std::string name = (fs::temp_directory_path() / "tq-torture-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
      throw std::runtime_error("cannot make a directory in " + fs::temp_directory_path().string());
    m_folder = name;
    m_root = name + "/root";
    setenv("TESSARINE_ROOT", m_root.c_str(), 1);
  }
  ~Campaign()
  {
    std::error_code ignored;
    fs::remove_all(m_folder, ignored);
  }
  Campaign(Campaign const&) = delete;
  Campaign& operator=(Campaign const&) = delete;

  int run();

private:
  bool wanted(std::string const& scenario) const
  {
    return m_options.scenarios.empty() || m_options.scenarios.count(scenario) != 0;
  }
  void play(Scenario const& scenario);
  void playKills(Scenario const& scenario);
  void tryStates(Scenario const& scenario, Image const& base, std::vector<Event> const& log);
  void tryRule(Scenario const& scenario, Image const& base, std::vector<Event> const& log,
               DiskRule rule);
  void judge(Scenario const& scenario, std::vector<Event> const& log, DiskState const& state,
             DiskRule rule, Tally& tally);
  std::vector<Event> record(Scenario const& scenario, Image& base);
  void inChild(std::function<void()> const& action);
  void report() const;

  Options const m_options;
  std::string m_folder;
  std::string m_root;
  std::map<std::pair<std::string, DiskRule>, Tally> m_tallies;
  std::vector<std::string> m_order;
  Kindly m_kinds;
  std::map<std::string, long> m_shown;
  long m_number = 0;
};

// The database of a process can be started once, and what is judged shall not
// know what was written.
void Campaign::inChild(std::function<void()> const& action)
{
  std::fflush(nullptr);
  pid_t const pid = fork();
  if (pid == 0)
  {
    try
    {
      if (std::freopen((m_folder + "/library.log").c_str(), "a", stderr) == nullptr)
        _exit(1);
      useFixedClock();
      action();
      _exit(0);
    }
    catch (std::exception const& exception)
    {
      std::cerr << exception.what() << std::endl;
      _exit(1);
    }
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0)
  {
    std::ifstream in(m_folder + "/library.log");
    throw std::runtime_error("what is to be recorded fails:\n" +
                             std::string(std::istreambuf_iterator<char>(in), {}));
  }
}

std::vector<Event> Campaign::record(Scenario const& scenario, Image& base)
{
  base = loadImage(m_root);
  std::string const file = m_folder + "/events";
  inChild(
      [&]
      {
        FileRecorder recorder(m_root);
        scenario.run(recorder);
        if (recorder.now().fingerprint() != loadImage(m_root).fingerprint())
          throw std::runtime_error("the recorder misses a system call");
        saveLog(recorder.log(), file);
      });
  return readLog(file);
}

void Campaign::play(Scenario const& scenario)
{
  storeImage({}, m_root);
  if (scenario.before)
    inChild(scenario.before);
  Image base;
  std::vector<Event> const log = record(scenario, base);
  tryStates(scenario, base, log);
}

// Every moment at which the process could have been killed: what it had done is
// there, and the next start is recorded in its turn.
void Campaign::playKills(Scenario const& scenario)
{
  storeImage({}, m_root);
  if (scenario.before)
    inChild(scenario.before);
  Image killed;
  std::vector<Event> const log = record(scenario, killed);
  for (Event const& event : log)
    killed.nodes.resize(std::max(killed.nodes.size(), event.node + 1));
  std::set<std::string> seen;
  for (Event const& event : log)
  {
    apply(killed, event);
    if (event.kind == Event::ACKNOWLEDGED)
      return;
    if (!seen.insert(killed.fingerprint()).second)
      continue;
    storeImage(killed, m_root);
    Scenario const restart =
        restartAfterKill({*scenario.stages[0].begin(), *scenario.stages[1].begin()});
    Image base;
    std::vector<Event> const restarted = record(restart, base);
    tryStates(restart, base, restarted);
  }
}

void Campaign::tryStates(Scenario const& scenario, Image const& base, std::vector<Event> const& log)
{
  for (DiskRule const rule : {DiskRule::STRICT, DiskRule::JOURNALLED})
    tryRule(scenario, base, log, rule);
}

// What may be there after so many events: what is acknowledged, or what is being
// done.
struct Expectation
{
  Kinds kinds;
  bool underWay = false;
};

Expectation expectationAt(Scenario const& scenario, std::vector<Event> const& log, std::size_t cut)
{
  std::size_t done = 0;
  std::size_t begin = 0;
  for (std::size_t i = 0; i < cut; ++i)
    if (log[i].kind == Event::ACKNOWLEDGED)
    {
      done = log[i].offset;
      begin = i + 1;
    }
  bool const begun = cut > begin && done + 1 < scenario.stages.size();
  Expectation expectation{scenario.stages.at(done), begun || !scenario.promises};
  if (begun)
    expectation.kinds.insert(scenario.stages[done + 1].begin(), scenario.stages[done + 1].end());
  return expectation;
}

void Campaign::tryRule(Scenario const& scenario, Image const& base, std::vector<Event> const& log,
                       DiskRule rule)
{
  auto const key = std::make_pair(scenario.name, rule);
  if (m_tallies.find(key) == m_tallies.end() && rule == DiskRule::STRICT)
    m_order.push_back(scenario.name);
  Tally& tally = m_tallies[key];
  std::set<std::pair<std::size_t, std::string>> seen; // by what is expected
  for (std::size_t cut = 0; cut <= log.size(); ++cut)
  {
    Expectation const expectation = expectationAt(scenario, log, cut);
    std::string expected(1, expectation.underWay ? '1' : '0');
    for (std::string const& kind : expectation.kinds)
      expected += kind + "/";
    bool const all = visitStates(
        base, log, cut, rule, m_options.bounds,
        [&](DiskState const& state)
        {
          if (seen.insert({std::hash<std::string>()(expected), state.image.fingerprint()}).second)
            judge(scenario, log, state, rule, tally);
        });
    tally.sampled |= !all;
  }
}

void Campaign::judge(Scenario const& scenario, std::vector<Event> const& log,
                     DiskState const& state, DiskRule rule, Tally& tally)
{
  long const number = m_number++;
  if (m_options.keep >= 0 && number != m_options.keep)
    return;
  storeImage(state.image, m_root);
  if (number == m_options.keep)
  {
    fs::create_directories(m_options.folder);
    storeImage(state.image, m_options.folder);
  }
  bool const hasBystander = scenario.name != "first put of a new database";
  Verdict const verdict =
      judgeDatabase({m_root, SUBJECT, hasBystander ? BYSTANDER : "", scenario.expired});
  Expectation const expectation = expectationAt(scenario, log, state.cut);

  ++tally.states;
  std::string why;
  bool const asExpected = expectation.kinds.count(verdict.kind) != 0;
  bool const namedAndMended =
      expectation.underWay && scenario.mayBeNamed && verdict.named && verdict.mended;
  for (std::string const& flaw : verdict.flaws)
    why += (why.empty() ? "" : "; ") + flaw;
  if (why.empty() && !asExpected && !namedAndMended)
    why =
        verdict.kind + (verdict.named ? "" : ", unnamed") + (verdict.mended ? "" : ", not mended");
  if (why.empty() && asExpected && !verdict.mended)
    why = "the next write fails";
  std::string const phase = expectation.underWay ? "under way" : "acknowledged";
  std::string const outcome = !why.empty() ? "BROKEN: " + why
                              : asExpected
                                  ? (verdict.kind.starts_with("whole") ? "whole" : verdict.kind)
                                  : "named and mended: " + verdict.kind;
  ++m_kinds[outcome][phase];
  tally.whole += why.empty() && asExpected;
  tally.named += why.empty() && !asExpected;
  tally.broken += !why.empty();
  bool const show = number == m_options.keep ||
                    (!why.empty() && m_shown[scenario.name + why]++ < m_options.examples);
  if (!show)
    return;
  std::cout << "state " << number << " of \"" << scenario.name << "\", "
            << (rule == DiskRule::STRICT ? "strict" : "journalled") << ", " << phase << ": "
            << outcome << '\n'
            << storyOf(state, log);
  std::cout << "    log of the next start:\n";
  std::istringstream lines(verdict.log);
  for (std::string line; std::getline(lines, line);)
    std::cout << "      " << line.substr(0, 200) << '\n';
}

void Campaign::report() const
{
  std::printf("\n%-34s %-10s %7s %7s %7s %7s\n", "operation", "disk", "states", "whole", "named",
              "BROKEN");
  for (std::string const& name : m_order)
    for (DiskRule const rule : {DiskRule::STRICT, DiskRule::JOURNALLED})
    {
      Tally const& tally = m_tallies.at({name, rule});
      std::printf("%-34s %-10s %7ld %7ld %7ld %7ld%s\n", name.c_str(),
                  rule == DiskRule::STRICT ? "strict" : "journalled", tally.states, tally.whole,
                  tally.named, tally.broken, tally.sampled ? "  (a random choice)" : "");
    }
  std::printf("\n%-60s %9s %12s\n", "what the next start finds", "under way", "acknowledged");
  for (auto const& [kind, phases] : m_kinds)
  {
    auto const count = [&phase = phases](char const* name)
    {
      auto const found = phase.find(name);
      return found == phase.end() ? 0L : found->second;
    };
    std::printf("%-60s %9ld %12ld\n", kind.c_str(), count("under way"), count("acknowledged"));
  }
}

int Campaign::run()
{
  auto const start = std::chrono::steady_clock::now();
  FileRecorder::leaveOutFlushes();
  warmUp();
  std::string const restart = restartAfterKill({}).name;
  bool found = false;
  for (Scenario const& scenario : scenarios())
    if (wanted(scenario.name))
    {
      found = true;
      play(scenario);
    }
  if (wanted(restart))
    for (Scenario const& scenario : scenarios())
      if (scenario.name.starts_with("replace,") || scenario.name == "put")
      {
        found = true;
        playKills(scenario);
      }
  if (!found)
  {
    std::cerr << "crash_states: there is no such scenario, but:\n";
    for (Scenario const& scenario : scenarios())
      std::cerr << "  " << scenario.name << '\n';
    std::cerr << "  " << restart << '\n';
    return 2;
  }
  report();
  Tally sum;
  for (auto const& [key, tally] : m_tallies)
  {
    sum.states += tally.states;
    sum.broken += tally.broken;
  }
  std::printf("\n%ld states, %ld broken, %.0f s, seed %u\n", sum.states, sum.broken,
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
              m_options.bounds.seed);
  if (sum.states == 0)
    return 2;
  return sum.broken == 0 ? 0 : 1;
}

std::optional<Options> parse(int argc, char** argv)
{
  Options options;
  for (int i = 1; i < argc; ++i)
  {
    std::string const word = argv[i];
    int const values = word == "--keep" ? 2 : 1;
    if (i + values >= argc)
      return std::nullopt;
    std::string const value = argv[i + 1];
    if (word == "--scenario")
      options.scenarios.insert(value);
    else if (word == "--most")
      options.bounds.mostPerCut = std::strtoul(value.c_str(), nullptr, 10);
    else if (word == "--seed")
      options.bounds.seed = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
    else if (word == "--examples")
      options.examples = std::strtol(value.c_str(), nullptr, 10);
    else if (word == "--keep")
    {
      options.keep = std::strtol(value.c_str(), nullptr, 10);
      options.folder = argv[i + 2];
    }
    else
      return std::nullopt;
    i += values;
  }
  return options;
}

} // namespace

int main(int argc, char** argv)
{
  auto const options = parse(argc, argv);
  if (!options)
  {
    std::cerr << "usage: crash_states [--scenario NAME]... [--most N] [--seed N]\n"
                 "                    [--examples N] [--keep NUMBER FOLDER]\n";
    return 2;
  }
  try
  {
    return Campaign(*options).run();
  }
  catch (std::exception const& exception)
  {
    std::cerr << "crash_states: " << exception.what() << '\n';
    return 2;
  }
}
