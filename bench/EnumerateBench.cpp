// A walk over the whole database.

#include "bench/BareFiles.h"
#include "bench/Bench.h"
#include "bench/Records.h"

namespace tqbench
{
namespace
{

constexpr int ROUNDS = 7;

std::size_t enumerate()
{
  AutoDereference<DiscoveryIterator> iterator(
      getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
  std::size_t found = 0;
  while (AutoDereference<Discovery> const discovery{iterator->getNext()})
    ++found;
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
  std::vector<double> const times =
      alternate(settings,
                {{"product", [&] { return round(enumerate); }},
                 {"floor", [&] { return round([&] { return bareEnumerate(directory); }); }}},
                ROUNDS);
  return {{"enumerate " + std::to_string(settings.records) + " discoveries", "ms", times[0] * 1e3,
           "readdir, open, lock, stat, read, close", times[1] * 1e3, 2.5}};
}

} // namespace tqbench
