// watch: what was added, changed or gone since the last look.

#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/ItemChanges.h"
#include "tools/Output.h"
#include "tools/ReaderGone.h"
#include "tools/Records.h"
#include "tools/Table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
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
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct WatchOptions
{
  Selection selection;
  unsigned interval = 5; // seconds
  unsigned looks = 0;    // 0: until interrupted
  bool heartbeats = false;
  bool json = false;
};

constexpr char SILENT[] = "silent";
constexpr char BACK[] = "back";

// Subject, authority, type, and the master where several are asked.
using Key = std::tuple<std::string, std::string, int, std::string>;
using Look = std::map<Key, Record>;

// The authority under which a service tells of itself, as a sign of life.
constexpr char SERVICE[] = "service";

// Of what it tells these are news; the rest changes with every sign of life.
bool isNewsOfService(std::string_view fact)
{
  return fact == "Role" || fact == "Version" || fact == "StartTime" || fact == "LastResult" ||
         fact == "CertificateEnd";
}

bool isService(Key const& key)
{
  return std::get<1>(key) == SERVICE && std::get<2>(key) == static_cast<int>(AT_TQUCLIENT);
}

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

  void report(char const* change, Record const& record,
              std::vector<ItemChange> const& changes = {}) const
  {
    if (m_json)
      reportJson(change, record, changes);
    else
      reportText(change, record, changes);
  }

private:
  static constexpr std::size_t INDENT = 19; // below the subject
  static constexpr std::size_t MOST_LINES = 10;

  static void reportJson(char const* change, Record const& record,
                         std::vector<ItemChange> const& changes)
  {
    std::optional<AutoDereference<OzfQuery>> description;
    nlohmann::json all = nlohmann::json::array();
    for (ItemChange const& each : changes)
    {
      if (!description)
        description = describe(record);
      auto const value = [&](std::optional<std::string> const& text)
      {
        return !text || each.fact.empty()
                   ? nlohmann::json()
                   : valueToJson(*text, attributeOf(**description, each.fact));
      };
      all.push_back({{"item", each.item},
                     {"change", !each.before  ? "added"
                                : !each.after ? "gone"
                                              : "changed"},
                     {"fact", each.fact.empty() ? nlohmann::json() : nlohmann::json(each.fact)},
                     {"old", value(each.before)},
                     {"new", value(each.after)}});
    }
    nlohmann::json line = {{"time", timeOrNull(OzfObjTime::now())},
                           {"change", change},
                           {"subject", record.subject},
                           {"authority", record.authority},
                           {"type", static_cast<int>(record.type)},
                           {"typeName", formatType(record.type)},
                           {"discoveryTime", timeOrNull(record.discovered)},
                           {"changes", all}};
    if (!masterOf(record).empty())
      line["master"] = masterOf(record);
    printJsonLine(line);
  }

  void reportText(std::string const& change, Record const& record,
                  std::vector<ItemChange> const& changes) const
  {
    char clock[16] = "";
    std::time_t const seconds = OzfObjTime::now().seconds();
    std::tm local{};
    if (localtime_r(&seconds, &local) != nullptr)
      std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
    std::cout << clock << "  " << colour(change) << change << (m_styles ? "\033[0m" : "")
              << std::string(9 - change.size(), ' ') << shown(record.subject);
    if (change == SILENT)
      std::cout << "  its service has not told of itself for "
                << formatAge(record.discovered, OzfObjTime::now());
    else if (change == BACK)
      std::cout << "  its service tells of itself again";
    else
      std::cout << "  " << shown(record.authority) << " (" << formatType(record.type) << ")"
                << (masterOf(record).empty() ? "" : " at " + shown(masterOf(record)));
    std::cout << '\n';
    std::optional<AutoDereference<OzfQuery>> description;
    for (std::size_t i = 0; i < changes.size() && i < MOST_LINES; ++i)
    {
      if (!description)
        description = describe(record);
      detail(textOf(changes[i], **description));
    }
    if (changes.size() > MOST_LINES)
      detail("and " + std::to_string(changes.size() - MOST_LINES) + " more");
    std::cout.flush();
  }

  static void detail(std::string const& text)
  {
    std::size_t const width = terminalWidth(STDOUT_FILENO);
    std::cout << std::string(INDENT, ' ')
              << (width > INDENT ? cutToWidth(text, width - INDENT) : text) << '\n';
  }

  static std::string textOf(ItemChange const& change, OzfQuery const& description)
  {
    std::string const item = change.item.empty() ? "" : shown(change.item) + ": ";
    if (change.fact.empty())
      return item + (change.after ? "added" : "gone");
    auto const* const attribute = attributeOf(description, change.fact);
    std::string const fact = item + shown(change.fact) + ' ';
    if (!change.before)
      return fact + formatValue(*change.after, attribute) + " (new)";
    if (!change.after)
      return fact + "gone, was " + formatValue(*change.before, attribute);
    return fact + formatChange(*change.before, *change.after, attribute);
  }

  char const* colour(std::string const& change) const
  {
    if (!m_styles)
      return "";
    bool const bad = change == "gone" || change == SILENT;
    return change == "added" || change == BACK ? "\033[32m" : bad ? "\033[31m" : "\033[33m";
  }

  bool const m_json;
  bool const m_styles;
};

// What was read of the discoveries at the last look, so that the next can be
// compared with it. What takes too much memory is not kept: of its changes only
// that there were some is told then.
class Contents
{
public:
  explicit Contents(Connection const& connection) : m_connection(connection) {}

  // Reads the discovery; absent when that fails, when it is too much, or when
  // little of the time for the look is left.
  std::optional<std::vector<Item>> read(Record const& record)
  {
    if (m_connection.clock().nearlyOver() || m_connection.isMissing(record))
      return std::nullopt;
    std::vector<Item> items;
    std::size_t size = 0;
    Collection const collection = readCollection(record, OzfQuery(),
                                                 [&](Item item)
                                                 {
                                                   size += sizeOf(item);
                                                   if (size <= MOST_OF_ONE)
                                                     items.push_back(std::move(item));
                                                 });
    // Else those to come would have to be waited for.
    if (!collection.complete && m_connection.several())
      m_connection.answers(record);
    if (!collection.complete || size > MOST_OF_ONE)
      return std::nullopt;
    return items;
  }

  std::vector<Item> const* find(Key const& key) const
  {
    auto const found = m_known.find(key);
    return found == m_known.end() ? nullptr : &found->second;
  }

  void keep(Key const& key, std::vector<Item> items)
  {
    forget(key);
    std::size_t size = 0;
    for (Item const& item : items)
      size += sizeOf(item);
    if (m_size + size > MOST)
      return;
    m_size += size;
    m_known[key] = std::move(items);
  }

  void forget(Key const& key)
  {
    auto const found = m_known.find(key);
    if (found == m_known.end())
      return;
    for (Item const& item : found->second)
      m_size -= sizeOf(item);
    m_known.erase(found);
  }

private:
  static constexpr std::size_t MOST_OF_ONE = 4 << 20;
  static constexpr std::size_t MOST = 64 << 20;

  Connection const& m_connection;
  std::map<Key, std::vector<Item>> m_known;
  std::size_t m_size = 0;
};

int look(Connection const& connection, Selection const& selection, Look& result, bool quiet,
         std::string* why = nullptr)
{
  std::vector<Record> records;
  int const code = queryRecords(connection, selection, records, quiet, why);
  result.clear();
  for (Record& record : records)
    result[{record.subject, record.authority, static_cast<int>(record.type), masterOf(record)}] =
        std::move(record);
  return code;
}

// Whether the last look may lack the record although it is there.
bool mayLack(Connection const& connection, Record const& record)
{
  if (!connection.several())
    return true;
  auto const& masters = connection.masters().all();
  return std::any_of(masters.begin(), masters.end(),
                     [&](Master const& each) {
                       return each.name == masterOf(record) &&
                              (each.incomplete || !each.missing.empty());
                     });
}

class Watch
{
public:
  Watch(WatchOptions const& options, Connection const& connection)
      : m_options(options),
        m_connection(connection),
        m_reporter(options.json),
        m_contents(connection)
  {
  }

  // An exit code. Also done when it was interrupted.
  int begin(Interruption const& interruption)
  {
    int const result = look(m_connection, m_options.selection, m_before, false);
    if (!isListed(result))
      return result;
    if (int const services = lookForServices(m_services, result != EXIT_DONE); !isListed(services))
      return services;
    m_whole = result == EXIT_DONE;
    Progress progress("Reading what there is");
    std::size_t done = 0;
    for (auto const& [key, record] : m_before)
    {
      progress.update(std::to_string(++done) + " of " + std::to_string(m_before.size()));
      if (!interruption.pause(0))
        break;
      readFirst(key, record);
    }
    return EXIT_DONE;
  }

  std::size_t count() const { return m_before.size(); }

  // Whether the last look lacked nothing that the service could not read.
  bool isWhole() const noexcept { return m_whole; }

  // False when the service did not list what it has; why says why.
  bool again(std::string& why)
  {
    Look after;
    Look services;
    int const seen = look(m_connection, m_options.selection, after, true, &why);
    if (!isListed(seen))
      return false;
    int const told = lookForServices(services, true, &why);
    if (!isListed(told))
      return false;
    // What is not in an incomplete look may be there all the same: it is taken
    // over.
    if (seen != EXIT_DONE)
      takeOver(m_before, after);
    if (told != EXIT_DONE)
      takeOver(m_services, services);
    bool const whole = seen == EXIT_DONE && told == EXIT_DONE;
    if (m_whole && !whole && !m_connection.several())
      complainIncomplete();
    m_whole = whole;
    compareServices(services, after);
    compare(after);
    m_before = std::move(after);
    m_services = std::move(services);
    return true;
  }

private:
  void takeOver(Look const& before, Look& after) const
  {
    for (auto const& [key, record] : before)
      if (mayLack(m_connection, record))
        after.emplace(key, record);
  }

  // Every service's sign of life, also when the user selected other things.
  int lookForServices(Look& services, bool quiet, std::string* why = nullptr) const
  {
    Selection selection;
    selection.subject = m_options.selection.subject;
    selection.authority = SERVICE;
    selection.typeName = formatType(AT_TQUCLIENT);
    return look(m_connection, selection, services, quiet, why);
  }

  // A host is silent when its service tells nothing of itself any more while
  // something that its explorers told is still there.
  void compareServices(Look const& services, Look const& after)
  {
    std::set<std::string> known;
    for (auto const& [key, record] : after)
      if (record.type == AT_TQUCLIENT || record.onDemand())
        known.insert(record.subject);
    // One that went to another master is not silent.
    std::set<std::string> telling;
    for (auto const& [key, record] : services)
      telling.insert(record.subject);
    for (auto const& [key, record] : m_services)
      if (telling.count(record.subject) == 0 && known.count(record.subject) != 0)
      {
        m_silent.insert(record.subject);
        m_reporter.report(SILENT, record);
      }
    for (auto const& [key, record] : services)
      if (m_silent.erase(record.subject) != 0)
      {
        m_back.insert(record.subject);
        m_reporter.report(BACK, record);
      }
    // A host of which nothing is left is no silent one: names that come and go
    // would add up.
    std::erase_if(m_silent, [&known](std::string const& host) { return known.count(host) == 0; });
  }

  void compare(Look const& after)
  {
    for (auto const& [key, record] : m_before)
      if (after.count(key) == 0)
      {
        m_contents.forget(key);
        if (!isService(key) || m_silent.count(record.subject) == 0)
          m_reporter.report("gone", record);
      }
    for (auto const& [key, record] : after)
    {
      auto const known = m_before.find(key);
      if (known == m_before.end())
      {
        readFirst(key, record);
        if (!isService(key) || m_back.count(record.subject) == 0)
          m_reporter.report("added", record);
      }
      else if (known->second.discovered != record.discovered)
        compareContents(key, record);
    }
    m_back.clear();
  }

  // A collection on demand has no time, and would be made for the look alone.
  void readFirst(Key const& key, Record const& record)
  {
    if (record.onDemand() || record.announcement)
      return;
    if (auto items = m_contents.read(record))
      m_contents.keep(key, std::move(*items));
  }

  void compareContents(Key const& key, Record const& record)
  {
    auto items = m_contents.read(record);
    std::vector<Item> const* const before = m_contents.find(key);
    bool const compared = items && before != nullptr;
    std::vector<ItemChange> changes;
    if (compared)
      changes = changesBetween(
          *before, *items,
          isService(key) && !m_options.heartbeats ? isNewsOfService
                                                  : [](std::string_view) { return true; });
    // What was only told again is a sign of life.
    if (!compared || !changes.empty() || m_options.heartbeats)
      m_reporter.report("changed", record, changes);
    m_contents.forget(key);
    if (items)
      m_contents.keep(key, std::move(*items));
  }

  WatchOptions const& m_options;
  Connection const& m_connection;
  Reporter const m_reporter;
  Look m_before;
  Look m_services;
  Contents m_contents;
  bool m_whole = true;
  std::set<std::string> m_silent;
  std::set<std::string> m_back; // since the last look
};

// Unlike the connection's own answers, for each look anew.
bool answers(Connection const& connection)
{
  if (connection.several())
    return connection.answers();
  try
  {
    return !connection.service()->_non_existent();
  }
  catch (CORBA::Exception const&)
  {
    return false;
  }
}

int watch(WatchOptions const& options, Session const& session)
{
  // Before any thread is made, so that all of them hold the signals back.
  Interruption const interruption;
  WhileRead const whileRead;
  Connection connection(session.connection, Connection::SEVERAL);
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  Watch watched(options, connection);
  if (int const result = watched.begin(interruption); result != EXIT_DONE)
    return connection.conclude(result);
  if (!options.json)
    remark("Watching " + counted(watched.count(), "discovery", "discoveries") + " at " +
           connection.place() + ", every " + std::to_string(options.interval) +
           " s; Ctrl-C ends it.");

  int failure = EXIT_DONE; // of the last look
  for (unsigned looks = 1; options.looks == 0 || looks < options.looks; ++looks)
  {
    connection.stopClock();
    if (!interruption.pause(options.interval))
      break;
    connection.startClock();
    if (connection.several())
      connection.reachMissing(options.interval);
    std::string why;
    bool const lost = failure != EXIT_DONE;
    if (watched.again(why))
      failure = EXIT_DONE;
    else
      failure = answers(connection) ? EXIT_FAILED : EXIT_NOT_REACHABLE;
    if (lost == (failure != EXIT_DONE))
      continue;
    if (failure == EXIT_FAILED)
      complain(why + "; trying again");
    else
      complain(lost ? "the service answers again"
                    : "the service does not answer any more; trying again");
  }
  return failure != EXIT_DONE ? failure
                              : withMissing(watched.isWhole() ? EXIT_DONE : EXIT_PARTLY, EXIT_DONE);
}

} // namespace

void addWatchCommand(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<WatchOptions>();
  CLI::App* const command = application.add_subcommand(
      "watch", "Look again and again, and tell what was added, has changed or is gone, and which "
               "hosts have fallen silent");
  addSelectionOptions(*command, options->selection);
  command->add_option("-n,--interval", options->interval, "Seconds between two looks")
      ->check(CLI::Range(1U, 86400U))
      ->type_name("SECONDS")
      ->capture_default_str();
  command->add_option("--looks", options->looks, "How often to look; default: until Ctrl-C")
      ->check(CLI::Range(1U, 1000000U))
      ->type_name("NUMBER");
  command->add_flag("--heartbeats", options->heartbeats,
                    "Also what was only told again, as each service does every minute");
  command->add_flag("--json", options->json, "One JSON object a line");
  command->callback([options, &session] { session.exitCode = watch(*options, session); });
}

} // namespace tqdiscoctl
