// A large database listed from another process in large pages, beside etcd with as
// many keys whose values are as long as a metadata document.

#include "bench/Bench.h"
#include "bench/Etcd.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace tqbench
{
namespace
{

constexpr int LIST_ROUNDS = 9;
constexpr CORBA::Long LIST_PAGE = 500;
constexpr std::size_t VALUE_SIZE = 400;
constexpr std::size_t TRANSACTION = 100; // puts; etcd takes 128
constexpr char FIRST_KEY[] = "discovery/";
constexpr char LAST_KEY[] = "discovery0"; // the first behind them

std::size_t listPages(Remote::DiscoveryService_ptr service)
{
  Remote::DiscoveryIterator_var const iterator =
      service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*");
  iterator->pageSize(LIST_PAGE);
  std::size_t found = 0;
  for (;;)
  {
    Remote::DiscoverySeq_var const page = iterator->getNextPage();
    if (page->length() == 0)
      break;
    found += page->length();
  }
  iterator->release();
  return found;
}

void fill(EtcdClient& client, std::size_t records)
{
  std::string const value(VALUE_SIZE, 'v');
  std::vector<std::pair<std::string, std::string>> pairs;
  for (std::size_t number = 0; number < records; ++number)
  {
    pairs.emplace_back(FIRST_KEY + baseName(number), value);
    if (pairs.size() == TRANSACTION || number + 1 == records)
    {
      client.putAll(pairs);
      pairs.clear();
    }
  }
}

} // namespace

std::vector<Row> benchList(Settings const& settings)
{
  StoredService const stored(settings.database, settings.service);
  std::unique_ptr<EtcdProcess> etcd;
  std::optional<EtcdClient> client;
  if (EtcdProcess::isInstalled())
  {
    etcd = std::make_unique<EtcdProcess>(settings.directory + "/etcd");
    client.emplace(etcd->port());
    fill(*client, settings.records);
  }

  std::vector<Side> sides = {
      {"product", [&]
       {
         std::size_t found = 0;
         double const seconds = timed([&] { found = listPages(stored.service); });
         require(found == settings.records, "not every discovery was listed");
         return seconds;
       }}};
  if (client)
    sides.push_back({"etcd", [&]
                     {
                       std::size_t bytes = 0;
                       std::size_t found = 0;
                       double const seconds =
                           timed([&] { found = client->list(FIRST_KEY, LAST_KEY, bytes); });
                       require(found == settings.records && bytes > found * VALUE_SIZE,
                               "etcd has not listed every key");
                       return seconds;
                     }});
  std::vector<double> const times = alternate(settings, sides, LIST_ROUNDS);

  std::string const work = "list " + std::to_string(settings.records) +
                           " discoveries from another process, pages of 500";
  if (!client)
    return {{work, "ms", times[0] * 1e3, "", {}, {}}};
  return {{work, "ms", times[0] * 1e3, "etcd, a range, 400 bytes a key", times[1] * 1e3, 0.5}};
}

} // namespace tqbench
