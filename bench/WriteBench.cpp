// Discoveries written to the service, another process on loopback: one writer
// beside bare calls and bare files, and many writers at once beside the local
// database.

#include "bench/BareFiles.h"
#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Writers.h"

#include "discovery/RemoteDB.h"

#include <algorithm>
#include <filesystem>

namespace tqbench
{
namespace
{

constexpr int ROUNDS = 40;
constexpr std::size_t BLOCK = 25;

constexpr std::size_t CLIENTS = 50;
constexpr std::size_t WRITES = 40; // of each client in a round
constexpr int FLEET_ROUNDS = 5;

std::string const& largePayload()
{
  static std::string const text = payloadOf(4);
  return text;
}

// Through the library, into the database of a creator.
void write(DiscoveryCreator& database, std::size_t number)
{
  AutoDereference<Discovery> const discovery(database.newDiscovery(DQ_DISCOVERY_DATA));
  describe(*discovery, number);
  require(discovery->open(OM_UPDATE, "") == DS_SUCCESS, "cannot open for update");
  std::string const& text = largePayload();
  for (std::size_t at = 0; at < text.size(); at += CHUNK_SIZE)
    require(discovery->getCollectionData()->writeCollection(CHUNK_SIZE, text.data() + at) != 0,
            "cannot write the payload");
  require(discovery->persist() == DS_SUCCESS, "cannot persist");
}

// A round does the work for the next block of records.
Side side(char const* name, std::function<void(std::size_t)> const& work)
{
  return {name, [work, next = std::size_t{0}]() mutable
          {
            std::size_t const first = next;
            next += BLOCK;
            return timed(
                       [&]
                       {
                         for (std::size_t number = first; number < next; ++number)
                           work(number);
                       }) /
                   BLOCK;
          }};
}

} // namespace

std::vector<Row> benchWrite(Settings const& settings)
{
  Writing writing(settings);
  std::string const bareFolder = settings.directory + "/bare";
  std::filesystem::create_directory(bareFolder);
  std::string const metadata = document(0);

  auto const calls = [&](std::size_t number)
  {
    Remote::DiscoveryService_var const service = writing.connectBare();
    writeByCalls(service, number, largePayload());
  };
  auto const files = [&](std::size_t number)
  { barePersist(bareFolder, baseName(number), metadata, largePayload()); };
  std::vector<double> const times = alternate(
      settings,
      {side("product", [](std::size_t number) { write(getRemoteDiscoveryDatabase(), number); }),
       side("calls", calls), side("floor", files)},
      ROUNDS);
  std::string const work = "write a discovery with 4 KiB payload to the master";
  return {
      {work, "us", times[0] * 1e6, "7 bare calls and bare files", (times[1] + times[2]) * 1e6, 1.3},
      {work, "us", times[0] * 1e6, "the calls alone", times[1] * 1e6, {}},
      {work, "us", times[0] * 1e6, "the files alone", times[2] * 1e6, {}}};
}

std::vector<Row> benchFleetWrites(Settings const& settings)
{
  Writing writing(settings);
  constexpr std::size_t ALL = CLIENTS * WRITES;
  std::vector<double> unevenness;
  auto const perDiscovery = [](std::vector<double> const& times)
  { return *std::max_element(times.begin(), times.end()) / ALL; };

  auto const fleet = [&]
  {
    std::vector<double> const times = together(CLIENTS, WRITES,
                                               [&](std::size_t number)
                                               {
                                                 Remote::DiscoveryService_var const service =
                                                     writing.connect();
                                                 writeByCalls(service, number, largePayload());
                                               });
    unevenness.push_back(*std::max_element(times.begin(), times.end()) / median(times));
    return perDiscovery(times);
  };
  auto const local = [&](std::size_t threads)
  {
    return [=]
    {
      return perDiscovery(together(threads, ALL / threads,
                                   [](std::size_t number)
                                   { write(*getDiscoveryDBDatabase(), number); }));
    };
  };
  std::vector<double> const times =
      alternate(settings, {{"product", fleet}, {"floor", local(1)}, {"threads", local(CLIENTS)}},
                FLEET_ROUNDS);
  std::string const work =
      std::to_string(CLIENTS) + " clients write at once, 4 KiB payload, a discovery";
  return {{work, "us", times[0] * 1e6, "local persist, one thread", times[1] * 1e6, 1 / 0.8},
          {work, "us", times[0] * 1e6, "local persist, as many threads", times[2] * 1e6, {}},
          {"the slowest client of them", "x median", median(unevenness), "median client", 1, 2}};
}

} // namespace tqbench
