// Several processes write, rewrite and let expire the same few names, while
// others list them from the index of the database. Every list is compared with
// what had been acknowledged when it was asked for.
//
// Usage: lists [--seconds N] [--writers N] [--seed N]
//
// Exit code 0 when every list was right, 1 when not, 2 when nothing could be tried.

#include "discovery/DiscDB.h"
#include "ozf/log/Logger.h"
#include "tests/support/TempDir.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

constexpr std::size_t LISTED_NAMES = 12;
constexpr std::size_t MOST_WRITES = 1'000'000;
constexpr std::size_t MOST_OF_A_NAME = 200'000;
constexpr std::size_t LOOKED_BACK = 2000; // writes of a name that can still matter
constexpr int SHORT_LIFE_MS = 150;
constexpr std::int64_t LONG_LIFE = 3600;
constexpr char LIST_AUTHORITY[] = "lists";

// A moment, which all processes count together.
using Moment = std::uint64_t;

struct ListedWrite
{
  std::atomic<Moment> begun;
  std::atomic<Moment> acknowledged; // 0: not, or not yet
  std::size_t name;
  std::int64_t expires; // microseconds since 1970
};

// In memory that all processes share. Writes are counted from 1, as zero is no time.
struct ListLedger
{
  std::atomic<Moment> now;
  std::atomic<bool> ended;
  std::atomic<std::size_t> writes;
  std::atomic<std::size_t> refused;
  std::atomic<std::size_t> lists;
  std::atomic<std::size_t> records;
  std::atomic<std::size_t> absences; // of names that were written before
  std::atomic<std::size_t> wrong;
  std::array<ListedWrite, MOST_WRITES> write;
  std::array<std::atomic<std::size_t>, LISTED_NAMES> countOf;
  std::array<std::array<std::atomic<std::uint32_t>, MOST_OF_A_NAME>, LISTED_NAMES> writesOf;

  Moment tick() { return ++now; }
};

std::int64_t microsecondsOf(OzfObjTime const& time)
{
  return time.seconds() * 1'000'000 + time.microseconds();
}

std::string nameOf(std::size_t name) { return "name" + std::to_string(name); }

void writeNames(ListLedger& ledger, unsigned seed)
{
  std::minstd_rand random(seed);
  while (!ledger.ended)
  {
    std::size_t const number = ++ledger.writes;
    std::size_t const name = random() % LISTED_NAMES;
    std::size_t const place = ledger.countOf[name]++;
    if (number >= MOST_WRITES || place >= MOST_OF_A_NAME)
      return;
    bool const shortLived = random() % 3 == 0;
    OzfObjTime const expires =
        OzfObjTime::now() +
        (shortLived ? OzfObjTime(0, static_cast<std::int64_t>(random() % (SHORT_LIFE_MS * 1000)))
                    : OzfObjTime(LONG_LIFE));
    ListedWrite& write = ledger.write[number];
    write.name = name;
    write.expires = microsecondsOf(expires);
    write.begun = ledger.tick();
    ledger.writesOf[name][place] = static_cast<std::uint32_t>(number);

    AutoDereference<Discovery> const discovery(
        getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
    discovery->setAuthority(new Authority(LIST_AUTHORITY, AT_TQUCLIENT));
    discovery->setSubject(new Subject(nameOf(name)));
    auto* const attributes = new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                      OzfObjTime(static_cast<std::int64_t>(number)),
                                                      OzfObjTime(LONG_LIFE), 1);
    attributes->setExpiresTime(expires);
    // Documents of many lengths, so that one half of each would show.
    attributes->setSignature(std::string(random() % 300, 's'));
    discovery->setAttributes(attributes);
    if (discovery->open(OM_UPDATE, "") == DS_SUCCESS && discovery->persist() == DS_SUCCESS)
      write.acknowledged = ledger.tick();
    else
      ++ledger.refused;
  }
}

class ListJudge
{
public:
  explicit ListJudge(ListLedger& ledger) : m_ledger(ledger) {}

  void listAll()
  {
    Moment const begun = m_ledger.tick();
    std::int64_t const before = microsecondsOf(OzfObjTime::now());
    std::map<std::string, std::pair<std::size_t, std::int64_t>> found;
    std::size_t records = 0;
    AutoDereference<DiscoveryIterator> const iterator(
        getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
    iterator->list(
        [&](ListedDiscovery const& listed)
        {
          ++records;
          found[listed.subject] = {
              static_cast<std::size_t>(listed.attributes->getDiscoveryTime().seconds()),
              microsecondsOf(listed.attributes->getExpiresTime())};
          return true;
        });
    std::int64_t const after = microsecondsOf(OzfObjTime::now());
    Moment const ended = m_ledger.tick();
    if (records != found.size())
      complain("a name was listed twice", 0, 0);
    if (iterator->isIncomplete())
      complain("a list was incomplete", 0, 0);
    for (std::size_t name = 0; name < LISTED_NAMES; ++name)
    {
      auto const one = found.find(nameOf(name));
      if (one != found.end())
        judgeListed(name, one->second.first, one->second.second, begun, before, ended);
      else
        judgeAbsent(name, begun, after, ended);
    }
    ++m_ledger.lists;
    m_ledger.records += records;
  }

private:
  void complain(char const* what, std::size_t name, std::size_t number)
  {
    if (++m_ledger.wrong < 20)
      std::printf("%s: %s, write %zu\n", nameOf(name).c_str(), what, number);
  }

  std::vector<std::size_t> recentWrites(std::size_t name) const
  {
    std::size_t const count = std::min(m_ledger.countOf[name].load(), MOST_OF_A_NAME);
    std::vector<std::size_t> numbers;
    for (std::size_t at = count > LOOKED_BACK ? count - LOOKED_BACK : 0; at < count; ++at)
      if (std::size_t const number = m_ledger.writesOf[name][at]; number != 0)
        numbers.push_back(number);
    return numbers;
  }

  // The write that was acknowledged before the list began and begun after this one
  // had been acknowledged; 0 when there is none.
  std::size_t successorOf(std::size_t number, std::vector<std::size_t> const& all, Moment begun)
  {
    Moment const acknowledged = m_ledger.write[number].acknowledged;
    if (acknowledged == 0)
      return 0;
    for (std::size_t const other : all)
    {
      Moment const done = m_ledger.write[other].acknowledged;
      if (done != 0 && done < begun && m_ledger.write[other].begun > acknowledged)
        return other;
    }
    return 0;
  }

  void judgeListed(std::size_t name, std::size_t number, std::int64_t expires, Moment begun,
                   std::int64_t before, Moment ended)
  {
    if (number == 0 || number >= MOST_WRITES || m_ledger.write[number].name != name ||
        m_ledger.write[number].begun == 0 || m_ledger.write[number].begun > ended)
      complain("what nobody wrote was listed", name, number);
    else if (m_ledger.write[number].expires != expires)
      complain("two halves were listed", name, number);
    else if (expires < before)
      complain("what had expired was listed", name, number);
    else if (successorOf(number, recentWrites(name), begun) != 0)
      complain("what had been replaced was listed", name, number);
  }

  void judgeAbsent(std::size_t name, Moment begun, std::int64_t after, Moment ended)
  {
    auto const all = recentWrites(name);
    std::size_t acknowledged = 0;
    for (std::size_t const number : all)
    {
      ListedWrite const& write = m_ledger.write[number];
      if (write.acknowledged != 0 && write.acknowledged < begun)
        acknowledged = number;
      if (write.begun < ended && write.expires < after && successorOf(number, all, begun) == 0)
      {
        ++m_ledger.absences;
        return; // it may be this one that expired
      }
    }
    if (acknowledged != 0)
      complain("what was stored was not listed", name, acknowledged);
  }

  ListLedger& m_ledger;
};

void listUntilEnd(ListLedger& ledger)
{
  ListJudge judge(ledger);
  while (!ledger.ended)
    judge.listAll();
}

pid_t startProcess(std::function<void()> const& work)
{
  pid_t const pid = ::fork();
  if (pid != 0)
    return pid;
  try
  {
    work();
    ::_exit(0);
  }
  catch (std::exception const& exception)
  {
    std::printf("%s\n", exception.what());
    ::_exit(1);
  }
}

} // namespace

int main(int argc, char** argv)
{
  long seconds = 60;
  long writers = 4;
  unsigned seed = static_cast<unsigned>(std::random_device()());
  for (int i = 1; i + 1 < argc; i += 2)
  {
    std::string const word = argv[i];
    long const value = std::strtol(argv[i + 1], nullptr, 10);
    if (word == "--seconds")
      seconds = value;
    else if (word == "--writers")
      writers = value;
    else if (word == "--seed")
      seed = static_cast<unsigned>(value);
    else
      return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  LoggerFactory::setLevel(0);
  TempDir const root;
  ::setenv("TESSARINE_ROOT", root.path().c_str(), 1);
  void* const memory = ::mmap(nullptr, sizeof(ListLedger), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED)
    return 2;
  auto& ledger = *static_cast<ListLedger*>(memory); // all of it begins as zero
  getDiscoveryDBDatabase()->init("");

  std::vector<pid_t> processes;
  for (long i = 0; i < writers; ++i)
    processes.push_back(
        startProcess([&ledger, seed, i] { writeNames(ledger, seed + static_cast<unsigned>(i)); }));
  auto const list = [&ledger]
  {
    getDiscoveryDBDatabase()->keepIndex(true);
    std::thread other([&ledger] { listUntilEnd(ledger); });
    listUntilEnd(ledger);
    other.join();
    getDiscoveryDBDatabase()->keepIndex(false);
  };
  processes.push_back(startProcess(list));
  std::thread clock(
      [&ledger, seconds]
      {
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        ledger.ended = true;
      });
  list();
  clock.join();
  bool ended = true;
  for (pid_t const pid : processes)
  {
    int status = 0;
    ended = ::waitpid(pid, &status, 0) == pid && status == 0 && ended;
  }
  std::printf("seed %u: %zu writes, %zu refused; %zu lists, %zu records, %zu expired; %zu wrong\n",
              seed, ledger.writes.load(), ledger.refused.load(), ledger.lists.load(),
              ledger.records.load(), ledger.absences.load(), ledger.wrong.load());
  if (!ended || ledger.lists == 0 || ledger.records == 0 || ledger.absences == 0)
    return 2;
  return ledger.wrong == 0 ? 0 : 1;
}
