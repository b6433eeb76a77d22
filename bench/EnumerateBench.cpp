// A walk over the whole database, and a list of it from the service's index.

#include "bench/BareFiles.h"
#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/SqliteList.h"

#include "discovery/MetadataCache.h"

#include <limits>

namespace tqbench
{
namespace
{

constexpr int ROUNDS = 7;
constexpr int LIST_ROUNDS = 21;

// What the first answer after a start may take, in ms, and the records of it.
constexpr double FIRST_ANSWER = 1000;
constexpr std::size_t FIRST_PAGE = 500;

AutoDereference<DiscoveryIterator> everything()
{
  return AutoDereference<DiscoveryIterator>(
      getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
}

std::size_t enumerate()
{
  auto const iterator = everything();
  std::size_t found = 0;
  while (AutoDereference<Discovery> const discovery{iterator->getNext()})
    ++found;
  return found;
}

std::size_t list(std::function<void(ListRow const&)> const& take,
                 std::size_t most = std::numeric_limits<std::size_t>::max())
{
  constexpr std::int64_t MICROSECONDS = 1'000'000;
  std::size_t found = 0;
  ListRow row;
  auto const iterator = everything();
  iterator->list(
      [&](ListedDiscovery const& listed)
      {
        CollectionAttributes const& attributes = *listed.attributes;
        row.subject = listed.subject;
        row.authority = listed.authority;
        row.authorityType = listed.authorityType;
        row.collectionType = attributes.getType();
        row.storage = attributes.getStorage();
        row.discoveryTime = attributes.getDiscoveryTime().seconds();
        row.expiresTime = attributes.getExpiresTime().seconds() * MICROSECONDS +
                          attributes.getExpiresTime().microseconds();
        take(row);
        return ++found < most;
      });
  return found;
}

} // namespace

std::vector<Row> benchEnumerate(Settings const& settings)
{
  std::string const directory = openDatabase(settings.database);
  auto const round = [&](auto count)
  {
    std::size_t found = 0;
    double const seconds = timed([&] { found = count(); });
    require(found == settings.records, "not every discovery was found");
    return seconds;
  };
  std::vector<double> const walks =
      alternate(settings,
                {{"product", [&] { return round(enumerate); }},
                 {"floor", [&] { return round([&] { return bareEnumerate(directory); }); }}},
                ROUNDS);

  std::string const records = std::to_string(settings.records) + " discoveries";
  std::int64_t sum = 0; // so that nothing of it can be left out
  auto const add = [&sum](ListRow const& row)
  { sum += static_cast<std::int64_t>(row.subject.size()) + row.expiresTime + row.discoveryTime; };
  auto const listAll = [&add] { return list(add); };

  // A process that has just started has parsed nothing.
  getMetadataCache().limit(0);
  auto const afterStart = [](auto work)
  {
    std::vector<double> seconds;
    for (int i = 0; i < ROUNDS; ++i)
    {
      getDiscoveryDBDatabase()->keepIndex(false);
      getDiscoveryDBDatabase()->keepIndex(true);
      seconds.push_back(work());
    }
    return median(seconds);
  };
  double const firstPage = afterStart([&add] { return timed([&add] { list(add, FIRST_PAGE); }); });
  double const firstList = afterStart([&] { return round(listAll); });

  SqliteList sqlite(settings.directory + "/list.sqlite");
  list([&sqlite](ListRow const& row) { sqlite.add(row); });
  std::vector<double> const lists =
      alternate(settings,
                {{"product", [&] { return round(listAll); }},
                 {"sqlite", [&] { return round([&] { return sqlite.list(add); }); }}},
                LIST_ROUNDS);
  require(sum != 0, "the lists are empty");
  return {{"enumerate " + records + ", not the first walk", "ms", walks[0] * 1e3,
           "readdir, open, lock, stat, read, close", walks[1] * 1e3, 1.4},
          {"list " + records + " in the service", "ms", lists[0] * 1e3,
           "SQLite, the same columns, prepared", lists[1] * 1e3, 1.0},
          {"the first answer after a start, 500 of " + records,
           "ms",
           firstPage * 1e3,
           "",
           {},
           FIRST_ANSWER},
          {"the first list after a start, all of it", "ms", firstList * 1e3, "", {}, {}}};
}

} // namespace tqbench
