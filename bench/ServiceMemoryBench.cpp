// The memory of a service whose whole database several readers walk at once.

#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"

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
  StoredService const stored(settings.database, settings.service);
  double const idle = stored.process.memory();

  // The first walk brings up threads, buffers and parsers.
  walkTogether(stored.service, stored.process, settings.records);
  std::vector<double> samples;
  double const seconds = timed(
      [&]
      {
        for (int i = 0; i < WALKS; ++i)
        {
          auto const more = walkTogether(stored.service, stored.process, settings.records);
          samples.insert(samples.end(), more.begin(), more.end());
        }
      });

  auto const [least, most] = std::minmax_element(samples.begin(), samples.end());
  std::string const work = std::to_string(READERS) + " remote readers walk " +
                           std::to_string(settings.records) + " discoveries";
  return {{work + ", service's memory", "KiB", *most, "least after warm-up", *least, 1.05},
          {work + ", service's memory", "KiB", *most, "before the first walk", idle, {}},
          {work + ", all of them", "ms", seconds / WALKS * 1e3, "", {}, {}}};
}

} // namespace tqbench
