// watch: what was added, changed or gone since the last look.

#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/Output.h"
#include "tools/Records.h"
#include "tools/Table.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <sys/select.h>
#include <set>
#include <tuple>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

struct WatchOptions
{
  Selection selection;
  unsigned interval = 5; // seconds
  unsigned looks = 0;    // 0: until interrupted
  bool json = false;
};

using Key = std::tuple<std::string, std::string, int>; // subject, authority, type

// What is compared: a collection on demand has no time and only comes and goes.
using Look = std::map<Key, OzfObjTime>;

volatile std::sig_atomic_t interrupted = 0;

// Lets Ctrl-C end the watch between two looks. The signals are held back but
// for the pause, so that none is lost between the test and the sleep.
class Interruption
{
public:
  Interruption()
  {
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = 1; };
    sigset_t signals;
    sigemptyset(&signals);
    for (int const signal : {SIGINT, SIGTERM})
    {
      sigaction(signal, &action, nullptr);
      sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, &m_before);
  }
  ~Interruption() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  Interruption(Interruption const&) = delete;
  Interruption& operator=(Interruption const&) = delete;

  // False when it was interrupted.
  bool pause(unsigned seconds) const
  {
    timespec const time{static_cast<time_t>(seconds), 0};
    if (interrupted == 0)
      pselect(0, nullptr, nullptr, nullptr, &time, &m_before);
    return interrupted == 0;
  }

private:
  sigset_t m_before = {};
};

class Reporter
{
public:
  explicit Reporter(bool json) : m_json(json), m_styles(terminalStyles(STDOUT_FILENO)) {}

  void report(char const* change, Key const& key, OzfObjTime const& discovered) const
  {
    auto const& [subject, authority, type] = key;
    auto const typeText =
        formatType(static_cast<Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType>(type));
    OzfObjTime const now = OzfObjTime::now();
    if (m_json)
    {
      printJsonLine({{"time", timeOrNull(now)},
                     {"change", change},
                     {"subject", subject},
                     {"authority", authority},
                     {"type", type},
                     {"typeName", typeText},
                     {"discoveryTime", timeOrNull(discovered)}});
      return;
    }
    char clock[16] = "";
    std::time_t const seconds = now.seconds();
    std::tm local{};
    if (localtime_r(&seconds, &local) != nullptr)
      std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
    std::cout << clock << "  " << colour(change) << change << (m_styles ? "\033[0m" : "")
              << std::string(9 - std::string(change).size(), ' ') << subject << "  " << authority
              << " (" << typeText << ")" << std::endl;
  }

private:
  char const* colour(std::string const& change) const
  {
    if (!m_styles)
      return "";
    return change == "added" ? "\033[32m" : change == "gone" ? "\033[31m" : "\033[33m";
  }

  bool const m_json;
  bool const m_styles;
};

int look(Selection const& selection, Look& result, bool quiet)
{
  std::vector<Record> records;
  int const code = queryRecords(selection, records, quiet);
  result.clear();
  for (Record const& record : records)
    result[{record.subject, record.authority, static_cast<int>(record.type)}] = record.discovered;
  return code;
}

void compare(Look const& before, Look const& after, Reporter const& reporter)
{
  for (auto const& [key, time] : before)
    if (after.count(key) == 0)
      reporter.report("gone", key, time);
  for (auto const& [key, time] : after)
  {
    auto const known = before.find(key);
    if (known == before.end())
      reporter.report("added", key, time);
    else if (known->second != time)
      reporter.report("changed", key, time);
  }
}

int watch(WatchOptions const& options, Session const& session)
{
  // Before any thread is made, so that all of them hold the signals back.
  Interruption const interruption;
  Connection connection(session.connection);
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  Look before;
  if (int const result = look(options.selection, before, false); result != EXIT_DONE)
    return connection.conclude(result);
  if (!options.json)
    std::cerr << "Watching " << counted(before.size(), "discovery", "discoveries") << " at "
              << connection.place() << ", every " << options.interval << " s; Ctrl-C ends it.\n";

  Reporter const reporter(options.json);
  bool lost = false;
  for (unsigned looks = 1; options.looks == 0 || looks < options.looks; ++looks)
  {
    if (!interruption.pause(options.interval))
      break;
    Look after;
    if (look(options.selection, after, true) != EXIT_DONE)
    {
      if (!lost)
        complain("the service does not answer any more; trying again");
      lost = true;
      continue;
    }
    if (lost)
      complain("the service answers again");
    lost = false;
    compare(before, after, reporter);
    before = std::move(after);
  }
  return lost ? EXIT_NOT_REACHABLE : EXIT_DONE;
}

} // namespace

void addWatchCommand(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<WatchOptions>();
  CLI::App* const command = application.add_subcommand(
      "watch", "Look again and again, and tell what was added, has changed or is gone");
  addSelectionOptions(*command, options->selection);
  command->add_option("-n,--interval", options->interval, "Seconds between two looks")
      ->check(CLI::Range(1U, 86400U))
      ->type_name("SECONDS")
      ->capture_default_str();
  command->add_option("--looks", options->looks, "How often to look; default: until Ctrl-C")
      ->check(CLI::Range(1U, 1000000U))
      ->type_name("NUMBER");
  command->add_flag("--json", options->json, "One JSON object a line");
  command->callback([options, &session] { session.exitCode = watch(*options, session); });
}

} // namespace tqdiscoctl
