// The memory of a service whose whole database several readers walk at once.

#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace tqbench
{
namespace
{

using namespace std::chrono_literals;

constexpr int READERS = 4;
constexpr int WALKS = 3;
constexpr auto SAMPLE_PAUSE = 20ms;

std::size_t walk(Remote::DiscoveryService_ptr service)
{
  Remote::DiscoveryIterator_var const iterator =
      service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*");
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

// All readers walk the database at once; the service's memory meanwhile.
std::vector<double> walkTogether(Remote::DiscoveryService_ptr service,
                                 ServiceProcess const& process, std::size_t records)
{
  std::atomic<int> running = READERS;
  std::atomic<bool> complete = true;
  std::vector<std::jthread> readers;
  for (int i = 0; i < READERS; ++i)
    readers.emplace_back(
        [&]
        {
          try
          {
            if (walk(service) != records)
              complete = false;
          }
          catch (CORBA::Exception const&)
          {
            complete = false;
          }
          --running;
        });
  std::vector<double> samples;
  while (running > 0)
  {
    samples.push_back(process.memory());
    std::this_thread::sleep_for(SAMPLE_PAUSE);
  }
  readers.clear();
  require(complete, "a reader did not get every discovery");
  return samples;
}

} // namespace

std::vector<Row> benchServiceMemory(Settings const& settings)
{
  openDatabase(settings.database);
  writeConfiguration(settings.database, freePort());
  reloadConfiguration();
  ServiceProcess const process(settings.service);
  Orb orb(0, "", "tqbench", 0, 0);
  require(orb.init() && orb.run(0) == 0, "no ORB");
  Remote::DiscoveryService_var service =
      connectTo<Remote::DiscoveryService>(orb, "DiscoveryService", "DiscoveryService");
  double const idle = process.memory();

  // The first walk brings up threads, buffers and parsers.
  walkTogether(service, process, settings.records);
  std::vector<double> samples;
  double const seconds = timed(
      [&]
      {
        for (int i = 0; i < WALKS; ++i)
        {
          auto const more = walkTogether(service, process, settings.records);
          samples.insert(samples.end(), more.begin(), more.end());
        }
      });
  service = Remote::DiscoveryService::_nil();
  orb.shutdown();

  auto const [least, most] = std::minmax_element(samples.begin(), samples.end());
  std::string const work = std::to_string(READERS) + " remote readers walk " +
                           std::to_string(settings.records) + " discoveries";
  return {{work + ", service's memory", "KiB", *most, "least after warm-up", *least, 1.05},
          {work + ", service's memory", "KiB", *most, "before the first walk", idle, {}},
          {work + ", all of them", "ms", seconds / WALKS * 1e3, "", {}, {}}};
}

} // namespace tqbench
