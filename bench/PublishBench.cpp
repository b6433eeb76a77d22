// tqpublish between some masters and a PostgreSQL on this machine.

#include "bench/Bench.h"
#include "bench/PublishFleet.h"
#include "tests/support/NotifySocket.h"
#include "tests/support/PostgresServer.h"

#include <algorithm>
#include <cstdlib>

namespace tqbench
{
namespace
{

using namespace std::chrono_literals;

constexpr int PASSES = 3;
constexpr std::size_t CHANGES = 20000; // at a time, of the pass that is to keep up
constexpr double MIB = 1 << 20;

// Of 10,000 hosts whose file systems and service tell something else in each of the passes, five
// minutes apart.
constexpr double CHANGES_A_DAY = 10000.0 * 2 * 288;

// What Debian's PostgreSQL has; the tests' has less.
constexpr char AS_DELIVERED[] = "fsync = on\nshared_buffers = 128MB\nmax_connections = 100\n";

class Postgres
{
public:
  Postgres()
  {
    require(m_server.create(AS_DELIVERED) && m_server.start(), "PostgreSQL does not start");
  }

  tqtest::PostgresServer const& server() const { return m_server; }
  std::string ask(std::string const& question) const { return m_server.sql(question); }
  double number(std::string const& question) const { return std::stod(ask(question)); }

  double written() const { return number("select pg_current_wal_lsn() - '0/0'"); }
  double size() const { return number("select pg_database_size(current_database())"); }

  // Rows that were inserted, updated or removed so far, but the heartbeats.
  double rowsTouched() const
  {
    return number("select coalesce(sum(n_tup_ins + n_tup_upd + n_tup_del), 0) "
                  "from pg_stat_user_tables where relname <> 'master'");
  }

  // Milliseconds that an answer takes, in the median.
  double timeOf(std::string const& question) const
  {
    std::vector<double> times;
    for (int i = 0; i < PASSES; ++i)
    {
      std::string const plan = ask("explain (analyze, timing off) " + question);
      constexpr char TIME[] = "Execution Time: ";
      auto const at = plan.find(TIME);
      require(at != std::string::npos, "a question was not answered");
      times.push_back(std::stod(plan.substr(at + sizeof TIME - 1)));
    }
    return median(std::move(times));
  }

private:
  tqtest::PostgresServer m_server{true};
};

// tqpublish, which passes over the first so many masters every two seconds.
class Publisher
{
public:
  Publisher(Settings const& settings, Postgres const& postgres, PublishFleet const& fleet,
            std::size_t masters)
      : m_root(settings.directory + "/desk" + std::to_string(masters)),
        m_notify(m_root + ".notify"),
        m_environment(postgres.server().environment())
  {
    std::filesystem::create_directories(m_root + "/etc");
    writeText(m_root + "/etc/tq.conf",
              fleet.configuration(masters) + "PUBLISH_INTERVAL = 2s\nHISTORY_EXCEPT = service\n");
    m_environment["TESSARINE_ROOT"] = m_root;
    require(tqtest::runProgram(TQ_BIN_DIR "/tqpublish", {"migrate"}, m_environment).exitCode == 0,
            "the schema was not made");
    m_environment["NOTIFY_SOCKET"] = m_root + ".notify";
    m_process = std::make_unique<Process>(TQ_BIN_DIR "/tqpublish", std::vector<std::string>{},
                                          m_environment);
  }

  // Seconds that the next pass takes that ends.
  double pass()
  {
    constexpr char TOOK[] = " took ";
    std::string const status = m_notify.awaitMessage(TOOK, 20min);
    require(!status.empty(), "a pass does not end");
    return std::stod(status.substr(status.find(TOOK) + sizeof TOOK - 1));
  }

  // Of one that finds what work made meanwhile.
  double passAfter(std::function<void()> const& work)
  {
    m_process->freeze(); // between two passes, as one has just ended
    work();
    m_process->sendSignal(SIGCONT);
    return pass();
  }

  double memory() const // MiB
  {
    std::ifstream in("/proc/" + std::to_string(m_process->pid()) + "/status");
    for (std::string line; std::getline(in, line);)
      if (line.starts_with("VmHWM:"))
        return std::stod(line.substr(6)) / 1024;
    throw std::runtime_error("tqpublish has ended");
  }

  void end()
  {
    m_process->sendSignal(SIGTERM);
    require(m_process->wait() && m_process->exitCode() == 0, "tqpublish did not end as it should");
  }

private:
  std::string const m_root;
  tqtest::NotifySocket m_notify;
  Process::Environment m_environment;
  std::unique_ptr<Process> m_process;
};

Row figure(std::string const& work, double value, char const* unit,
           std::optional<double> target = {})
{
  return {work, unit, value, "", {}, target};
}

struct Question
{
  char const* name;
  char const* text;
};

constexpr Question QUESTIONS[] = {
    {"silent hosts", "select host, masters from silent_host where not stale order by last_report"},
    {"full file systems", "select host, mount_point, percent from full_filesystem"},
    {"what changed on a host since yesterday",
     "select * from recent_change where host = 'client-000042.example.net' order by at"},
    {"versions of a package",
     "select version, count(*) from package_version where package = 'openssl' group by version"},
    {"a fact of any item", "select d.subject, i.name from item i join discovery d "
                           "on d.id = i.discovery_id where i.facts @> '{\"Processors\": 17}'"}};

// The indexes that stand for questions alone; those that the passes need stay.
constexpr char WITHOUT_INDEXES[] =
    "drop index item_facts, item_package, discovery_subject, history_at, history_discovery";

std::vector<double> answerAll(Postgres const& postgres)
{
  postgres.ask("vacuum analyze");
  std::vector<double> times;
  for (Question const& question : QUESTIONS)
    times.push_back(postgres.timeOf(question.text));
  return times;
}

} // namespace

std::vector<Row> benchPublish(Settings const& settings)
{
  std::size_t const masters = settings.masters;
  // The masters' files in memory: their disk is not what is measured, and is slow to fill.
  ::setenv("TMPDIR", "/dev/shm", 1);
  PublishFleet fleet(masters, settings.records / masters / PublishFleet::EACH);
  fleet.start();
  ::setenv("TMPDIR", settings.directory.c_str(), 1);
  // PostgreSQL runs as nobody where this program is root's.
  std::filesystem::permissions(settings.directory, std::filesystem::perms(0755));
  std::vector<Row> rows;
  Postgres const postgres;
  std::string const all = std::to_string(fleet.records()) + " records of " +
                          std::to_string(fleet.hosts()) + " hosts on " + std::to_string(masters) +
                          (masters == 1 ? " master: " : " masters: ");
  auto const records = static_cast<double>(fleet.records());

  Publisher publisher(settings, postgres, fleet, masters);
  double const wal = postgres.written();
  rows.push_back(figure(all + "the first pass", publisher.pass(), "s"));
  rows.push_back(figure(all + "the database", postgres.size() / MIB, "MiB"));
  rows.push_back(figure(all + "WAL of the first pass", (postgres.written() - wal) / MIB, "MiB"));
  require(postgres.number("select count(*) from known where problem is null") == records,
          "not all records came");
  double const firstMemory = publisher.memory();

  std::vector<double> seconds;
  publisher.pass();
  double const touched = postgres.rowsTouched();
  double const quiet = postgres.written();
  for (int i = 0; i < PASSES; ++i)
    seconds.push_back(publisher.pass());
  rows.push_back(figure(all + "a pass without changes", median(seconds), "s", 5.0));
  rows.push_back(figure("  rows that it writes, but heartbeats",
                        (postgres.rowsTouched() - touched) / PASSES, "", 0.0));
  rows.push_back(figure("  WAL of it", (postgres.written() - quiet) / PASSES / 1024, "KiB"));

  seconds.clear();
  for (int i = 0; i < PASSES; ++i)
    seconds.push_back(publisher.passAfter([&] { fleet.report(fleet.records() / 50); }));
  rows.push_back(figure(all + "a pass with 2 % changed", median(seconds), "s"));

  std::size_t const some = std::min(CHANGES, fleet.records() / 3);
  double const before = postgres.size();
  double const walBefore = postgres.written();
  double const historyBefore = postgres.number("select count(*) from history");
  seconds.clear();
  for (int i = 0; i < PASSES; ++i)
    seconds.push_back(publisher.passAfter([&] { fleet.report(some); }));
  auto const changed = static_cast<double>(some) * PASSES;
  double const growth = (postgres.size() - before) / changed;
  double const walEach = (postgres.written() - walBefore) / changed;
  double const history =
      (postgres.number("select count(*) from history") - historyBefore) / changed;
  rows.push_back(figure("a pass with " + std::to_string(some) + " changed, for each 20,000 of them",
                        median(seconds) * 20000 / static_cast<double>(some), "s", 60.0));
  rows.push_back(figure("  growth of the database for each change", growth, "B"));
  rows.push_back(figure("  WAL for each change", walEach, "B"));
  rows.push_back(figure("  rows of history for each change", history, ""));
  std::string const day = "10,000 hosts, a day: ";
  rows.push_back(figure(day + "changes that are seen", CHANGES_A_DAY / 1e6, "millions"));
  rows.push_back(figure(day + "rows of history", CHANGES_A_DAY * history / 1e6, "millions"));
  rows.push_back(
      figure(day + "growth of the database", CHANGES_A_DAY * growth / MIB / 1024, "GiB"));
  rows.push_back(figure(day + "WAL", CHANGES_A_DAY * walEach / MIB / 1024, "GiB"));
  rows.push_back(figure("tqpublish's memory at most", publisher.memory(), "MiB", 64.0));
  rows.push_back({"tqpublish's memory at most",
                  "MiB",
                  publisher.memory(),
                  "after the first pass",
                  firstMemory,
                  {}});
  publisher.end();

  auto const with = answerAll(postgres);
  postgres.ask(WITHOUT_INDEXES);
  auto const without = answerAll(postgres);
  for (std::size_t i = 0; i < with.size(); ++i)
    rows.push_back({std::string("question: ") + QUESTIONS[i].name,
                    "ms",
                    with[i],
                    "without indexes for questions",
                    without[i],
                    {}});

  if (masters == 1)
    return rows;
  Publisher one(settings, postgres, fleet, 1);
  one.pass();
  std::string const ofOne = std::to_string(fleet.hosts() / masters) + " hosts on one master: ";
  seconds.clear();
  for (int i = 0; i < PASSES; ++i)
    seconds.push_back(one.pass());
  rows.push_back(figure(ofOne + "a pass without changes", median(seconds), "s"));
  seconds.clear();
  for (int i = 0; i < PASSES; ++i)
    seconds.push_back(one.passAfter([&] { fleet.report(fleet.records() / 50); }));
  rows.push_back(figure(ofOne + "a pass with 2 % changed", median(seconds), "s"));
  one.end();
  return rows;
}

} // namespace tqbench
