// One discovery written through to the disk.

#include "bench/BareFiles.h"
#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Sqlite.h"

#include <filesystem>

namespace tqbench
{
namespace
{

constexpr int ROUNDS = 40;
constexpr std::size_t BLOCK = 25;

void persist(std::size_t number)
{
  AutoDereference<Discovery> discovery(getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
  describe(*discovery, number);
  require(discovery->open(OM_UPDATE, "") == DS_SUCCESS, "cannot open for update");
  require(discovery->getCollectionData()->writeCollection(payload().size(), payload().data()) != 0,
          "cannot write the payload");
  require(discovery->persist() == DS_SUCCESS, "cannot persist");
}

// A round stores the next block of records; each side counts for itself.
template <class Store>
Side side(char const* name, Store store)
{
  return {name, [store, next = std::size_t{0}]() mutable
          {
            std::size_t const first = next;
            next += BLOCK;
            return timed(
                       [&]
                       {
                         for (std::size_t number = first; number < next; ++number)
                           store(number);
                       }) /
                   BLOCK;
          }};
}

} // namespace

std::vector<Row> benchPersist(Settings const& settings)
{
  std::string const bare = settings.directory + "/bare";
  openDatabase(settings.directory);
  std::filesystem::create_directory(bare);
  Sqlite sqlite(settings.directory + "/records.sqlite");
  std::string const metadata = document(0);

  std::vector<Row> rows;
  for (bool const replace : {false, true})
  {
    std::vector<double> const times =
        alternate(settings,
                  {side("product", persist),
                   side("floor", [&](std::size_t number)
                        { barePersist(bare, baseName(number), metadata, payload()); }),
                   side("sqlite", [&](std::size_t number)
                        { sqlite.store(subjectName(number), metadata, payload()); })},
                  ROUNDS);
    std::string const work =
        replace ? "replace a discovery, 1 KiB payload" : "persist a new discovery, 1 KiB payload";
    rows.push_back({work, "us", times[0] * 1e6, "same system calls", times[1] * 1e6, 1.3});
    rows.push_back({work, "us", times[0] * 1e6, "SQLite, WAL, FULL", times[2] * 1e6, {}});
  }
  return rows;
}

} // namespace tqbench
