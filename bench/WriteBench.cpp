// Discoveries written to the service, another process on loopback: one writer
// beside bare calls and bare files, large payloads beside the same calls and the
// local database, and many writers at once beside the local database; and writers
// of small payloads beside those of etcd, where that is installed.

#include "bench/BareFiles.h"
#include "bench/Bench.h"
#include "bench/Etcd.h"
#include "bench/Records.h"
#include "bench/Writers.h"

#include "discovery/RemoteDB.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>

namespace tqbench
{
namespace
{

constexpr int ROUNDS = 40;
constexpr std::size_t BLOCK = 25;

constexpr std::size_t CLIENTS = 50;
constexpr std::size_t WRITES = 40; // of each client in a round
constexpr int FLEET_ROUNDS = 5;

constexpr std::size_t LARGE_CHUNKS = 1024; // a payload of 1 MiB
constexpr std::size_t LARGE_CHUNK = 64 * CHUNK_SIZE;
constexpr int LARGE_ROUNDS = 20;
constexpr std::size_t LARGE_BLOCK = 4;

std::string const& smallPayload()
{
  static std::string const text = payloadOf(4);
  return text;
}

// Through the library, into the database of a creator, in pieces of that size.
void write(DiscoveryCreator& database, std::size_t number, std::string const& text,
           std::size_t piece)
{
  AutoDereference<Discovery> const discovery(database.newDiscovery(DQ_DISCOVERY_DATA));
  describe(*discovery, number);
  require(discovery->open(OM_UPDATE, "") == DS_SUCCESS, "cannot open for update");
  for (std::size_t at = 0; at < text.size(); at += piece)
    require(discovery->getCollectionData()->writeCollection(piece, text.data() + at) != 0,
            "cannot write the payload");
  require(discovery->persist() == DS_SUCCESS, "cannot persist");
}

void write(DiscoveryCreator& database, std::size_t number)
{
  write(database, number, smallPayload(), CHUNK_SIZE);
}

// What the library puts in a call, from now on.
void sendIn(std::size_t bytes)
{
  overrideConfiguration(configKey("COLLECTION_WRITE_SIZE").name, std::to_string(bytes));
}

// A round does the work for the next block of records.
Side side(char const* name, std::function<void(std::size_t)> const& work, std::size_t block = BLOCK)
{
  return {name, [work, block, next = std::size_t{0}]() mutable
          {
            std::size_t const first = next;
            next += block;
            return timed(
                       [&]
                       {
                         for (std::size_t number = first; number < next; ++number)
                           work(number);
                       }) /
                   static_cast<double>(block);
          }};
}

// The side takes part in rounds that another clock counts: the processor time of
// what is meant, in seconds for each record.
class Processor
{
public:
  explicit Processor(std::function<double()> clock) : m_clock(std::move(clock)) {}

  Side count(Side inner, std::size_t block)
  {
    return {inner.name, [this, block, round = inner.round]
            {
              double const before = m_clock();
              double const seconds = round();
              m_spent += m_clock() - before;
              m_records += block;
              return seconds;
            }};
  }

  double perRecord() const
  {
    return m_records == 0 ? std::nan("") : m_spent / static_cast<double>(m_records);
  }

private:
  std::function<double()> m_clock;
  double m_spent = 0;
  std::size_t m_records = 0;
};

double processorTimeOfThread()
{
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::unique_ptr<EtcdProcess> startEtcd(Settings const& settings)
{
  return EtcdProcess::isInstalled() ? std::make_unique<EtcdProcess>(settings.directory + "/etcd")
                                    : nullptr;
}

} // namespace

std::vector<Row> benchWrite(Settings const& settings)
{
  Writing writing(settings);
  std::string const bareFolder = settings.directory + "/bare";
  std::filesystem::create_directory(bareFolder);
  std::string const metadata = document(0);
  auto const etcd = startEtcd(settings);
  std::optional<EtcdClient> client;
  if (etcd)
    client.emplace(etcd->port());

  auto const calls = [&](std::size_t number)
  {
    Remote::DiscoveryService_var const service = writing.connectBare();
    writeByCalls(service, number, smallPayload());
  };
  auto const files = [&](std::size_t number)
  { barePersist(bareFolder, baseName(number), metadata, smallPayload()); };
  auto const product = [](std::size_t first, std::size_t chunk)
  {
    return [=](std::size_t number)
    {
      sendIn(chunk);
      write(getRemoteDiscoveryDatabase(), first + number, smallPayload(), smallPayload().size());
    };
  };
  Processor ofService([&] { return writing.process().processorTime(); });
  Processor ofBareServer([&] { return writing.bareProcessorTime(); });
  Processor ofFiles(processorTimeOfThread);
  std::size_t const apart = 1'000'000;
  std::vector<Side> sides = {ofService.count(side("product", product(0, CHUNK_SIZE)), BLOCK),
                             side("large", product(apart, LARGE_CHUNK)),
                             ofBareServer.count(side("calls", calls), BLOCK),
                             ofFiles.count(side("floor", files), BLOCK)};
  if (client)
    sides.push_back(side("etcd", [&](std::size_t number)
                         { client->put("discovery/" + baseName(number), smallPayload()); }));
  std::vector<double> const times = alternate(settings, sides, ROUNDS);

  std::string const work = "write a discovery with 4 KiB payload to the master";
  std::vector<Row> rows = {
      {work, "us", times[0] * 1e6, "7 bare calls and bare files", (times[2] + times[3]) * 1e6, 1.3},
      {work, "us", times[0] * 1e6, "the calls alone", times[2] * 1e6, {}},
      {work, "us", times[0] * 1e6, "the files alone", times[3] * 1e6, {}},
      {"processor time of the service for it",
       "us",
       ofService.perRecord() * 1e6,
       "of a bare server, and of bare files",
       (ofBareServer.perRecord() + ofFiles.perRecord()) * 1e6,
       {}}};
  if (client)
  {
    rows.push_back({work, "us", times[0] * 1e6, "etcd, a put of 4 KiB", times[4] * 1e6, 1.0});
    rows.push_back(
        {work + ", in one put", "us", times[1] * 1e6, "etcd, a put of 4 KiB", times[4] * 1e6, 1.0});
  }
  return rows;
}

std::vector<Row> benchLargeWrite(Settings const& settings)
{
  Writing writing(settings);
  sendIn(LARGE_CHUNK);
  std::string const text = payloadOf(LARGE_CHUNKS);
  auto const product = [&](std::size_t number)
  { write(getRemoteDiscoveryDatabase(), number, text, text.size()); };
  auto const calls = [&](std::size_t number)
  {
    Remote::DiscoveryService_var const service = writing.connectBare();
    writeByCalls(service, number, text, LARGE_CHUNK);
  };
  auto const local = [&](std::size_t number)
  { write(*getDiscoveryDBDatabase(), number, text, LARGE_CHUNK); };
  std::vector<double> const times =
      alternate(settings,
                {side("product", product, LARGE_BLOCK), side("calls", calls, LARGE_BLOCK),
                 side("floor", local, LARGE_BLOCK)},
                LARGE_ROUNDS);
  std::string const work = "write 1 MiB to the master, chunks of 64 KiB";
  return {{work, "ms", times[0] * 1e3, "the same bare calls, local persist",
           (times[1] + times[2]) * 1e3, 1.3},
          {work, "ms", times[0] * 1e3, "the calls alone", times[1] * 1e3, {}},
          {work, "ms", times[0] * 1e3, "the local persist alone", times[2] * 1e3, {}}};
}

std::vector<Row> benchFleetWrites(Settings const& settings)
{
  Writing writing(settings);
  constexpr std::size_t ALL = CLIENTS * WRITES;
  auto const etcd = startEtcd(settings);
  std::vector<std::unique_ptr<EtcdClient>> etcdClients;
  while (etcd && etcdClients.size() < CLIENTS)
    etcdClients.push_back(std::make_unique<EtcdClient>(etcd->port()));
  std::vector<double> unevenness;
  auto const perDiscovery = [](std::vector<double> const& times)
  { return *std::max_element(times.begin(), times.end()) / ALL; };

  auto const fleet = [&](std::size_t chunk)
  {
    return [&, chunk]
    {
      std::vector<double> const times = together(
          CLIENTS, WRITES,
          [&](std::size_t number) {
            writeByCalls(writing.connectOfFleet(number / WRITES), number, smallPayload(), chunk);
          });
      if (chunk == CHUNK_SIZE)
        unevenness.push_back(*std::max_element(times.begin(), times.end()) / median(times));
      return perDiscovery(times);
    };
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
  Processor ofService([&] { return writing.process().processorTime(); });
  std::vector<Side> sides = {ofService.count({"product", fleet(CHUNK_SIZE)}, ALL),
                             {"large", fleet(smallPayload().size())},
                             {"floor", local(1)},
                             {"threads", local(CLIENTS)}};
  if (etcd)
    sides.push_back({"etcd", [&]
                     {
                       return perDiscovery(together(CLIENTS, WRITES,
                                                    [&](std::size_t number) {
                                                      etcdClients[number / WRITES]->put(
                                                          "discovery/" + baseName(number),
                                                          smallPayload());
                                                    }));
                     }});
  std::vector<double> const times = alternate(settings, sides, FLEET_ROUNDS);
  std::string const work =
      std::to_string(CLIENTS) + " clients write at once, 4 KiB payload, a discovery";
  std::vector<Row> rows = {
      {work, "us", times[0] * 1e6, "local persist, one thread", times[2] * 1e6, 1 / 0.8},
      {work, "us", times[0] * 1e6, "local persist, as many threads", times[3] * 1e6, {}},
      {"processor time of the service for it", "us", ofService.perRecord() * 1e6, "", {}, {}},
      {"the slowest client of them", "x median", median(unevenness), "median client", 1, 2}};
  if (etcd)
  {
    std::string const floor = "etcd, " + std::to_string(CLIENTS) + " clients, 4 KiB";
    rows.push_back({work, "us", times[0] * 1e6, floor, times[4] * 1e6, 1.0});
    rows.push_back({work + ", in one put", "us", times[1] * 1e6, floor, times[4] * 1e6, 1.0});
  }
  return rows;
}

} // namespace tqbench
