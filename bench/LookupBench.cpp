// One discovery by its exact subject, authority and type.

#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Sqlite.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace tqbench
{
namespace
{

constexpr int ROUNDS = 31;
constexpr std::size_t BLOCK = 1000;
constexpr std::size_t FEW = 100;

// Visits all numbers below count in an order without a pattern, again and
// again. The step is a prime that divides no count in use.
class Numbers
{
public:
  explicit Numbers(std::size_t count) : m_count(count) {}
  std::size_t next() { return m_next = (m_next + 7919) % m_count; }

private:
  std::size_t m_count;
  std::size_t m_next = 0;
};

void lookUp(std::size_t number)
{
  AutoDereference<DiscoveryIterator> iterator(
      getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
  iterator->setAuthority(AUTHORITY, TYPE);
  iterator->setSubject(subjectName(number));
  AutoDereference<Discovery> const discovery(iterator->getNext());
  require(discovery != nullptr, "a discovery was not found");
}

// A database of its own in a process of its own: a process has only one.
class Worker
{
public:
  Worker(std::string const& root, std::size_t records)
  {
    int down[2];
    int up[2];
    require(::pipe(down) == 0 && ::pipe(up) == 0, "no pipe");
    m_pid = ::fork();
    require(m_pid >= 0, "no process");
    if (m_pid == 0)
    {
      ::close(down[1]);
      ::close(up[0]);
      try
      {
        serve(root, records, down[0], up[1]);
        ::_exit(0);
      }
      catch (std::exception const& exception)
      {
        std::fprintf(stderr, "look-up: %s\n", exception.what());
        ::_exit(1);
      }
    }
    ::close(down[0]);
    ::close(up[1]);
    m_request = down[1];
    m_answer = up[0];
    await(); // until every file was read once
  }

  ~Worker()
  {
    ::close(m_request);
    ::close(m_answer);
    ::waitpid(m_pid, nullptr, 0);
  }
  Worker(Worker const&) = delete;
  Worker& operator=(Worker const&) = delete;

  double round()
  {
    require(::write(m_request, "", 1) == 1, "the look-up process has gone");
    return await();
  }

private:
  static void serve(std::string const& root, std::size_t records, int requests, int answers)
  {
    openDatabase(root);
    Numbers numbers(records);
    // Every metadata file once, so that no round reads the disk.
    for (std::size_t i = 0; i < records; ++i)
      lookUp(numbers.next());
    double seconds = 0;
    char request = 0;
    do
    {
      require(::write(answers, &seconds, sizeof seconds) == sizeof seconds, "nobody listens");
      if (::read(requests, &request, 1) != 1)
        return;
      seconds = timed(
                    [&]
                    {
                      for (std::size_t i = 0; i < BLOCK; ++i)
                        lookUp(numbers.next());
                    }) /
                BLOCK;
    } while (true);
  }

  double await()
  {
    double seconds = 0;
    require(::read(m_answer, &seconds, sizeof seconds) == sizeof seconds,
            "the look-up process has failed");
    return seconds;
  }

  pid_t m_pid;
  int m_request;
  int m_answer;
};

} // namespace

std::vector<Row> benchLookup(Settings const& settings)
{
  makeDatabase(settings.directory, FEW);
  Worker few(settings.directory, FEW);
  Worker many(settings.database, settings.records);

  Sqlite sqlite(settings.directory + "/records.sqlite");
  sqlite.execute("BEGIN");
  std::string const metadata = document(0);
  for (std::size_t number = 0; number < settings.records; ++number)
    sqlite.store(subjectName(number), metadata, payload());
  sqlite.execute("COMMIT");
  Numbers numbers(settings.records);

  std::vector<double> const times = alternate(
      settings,
      {{"product", [&] { return many.round(); }},
       {"floor", [&] { return few.round(); }},
       {"sqlite",
        [&]
        {
          return timed(
                     [&]
                     {
                       for (std::size_t i = 0; i < BLOCK; ++i)
                         require(sqlite.find(subjectName(numbers.next())) != 0, "not in SQLite");
                     }) /
                 BLOCK;
        }}},
      ROUNDS);
  std::string const work = "look one up among " + std::to_string(settings.records);
  return {{work, "us", times[0] * 1e6, "among " + std::to_string(FEW), times[1] * 1e6, 1.5},
          {work, "us", times[0] * 1e6, "SQLite, primary key", times[2] * 1e6, {}}};
}

} // namespace tqbench
