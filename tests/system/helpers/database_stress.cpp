// Threads that persist, read, walk and expire the same discoveries for a time.
// Whatever a reader may never see goes to standard output as a line; the
// library's own lines go to standard error.
//
// Usage: database_stress <threads> <names> <seconds> <seed>

#include "tests/support/StoredRecord.h"

#include "ozf/log/Logger.h"

#include <sys/stat.h>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace
{

using namespace tqtest;
using namespace tqtest::stored;

struct Counts
{
  std::atomic<long> writes{0}, refused{0}, reads{0}, walks{0}, absent{0};
};

std::mutex outputMutex;
std::atomic<std::uint64_t> nextNumber;

void complain(std::string const& text)
{
  std::lock_guard const guard(outputMutex);
  std::cout << "complaint: " << text << std::endl;
}

// Another thread may have expired the record, so opening may fail; what is
// opened is whole.
void checkRecord(Discovery& record, Counts& counts)
{
  if (record.getSubject() == nullptr || record.getAuthority() == nullptr ||
      record.getAttributes() == nullptr)
  {
    complain("a record lacks a part");
    return;
  }
  if (record.open(OM_READ, "") != DS_SUCCESS)
  {
    ++counts.absent;
    return;
  }
  std::string payload;
  char buffer[4096];
  for (long n; (n = record.getCollectionData()->readCollection(sizeof buffer, buffer)) > 0;)
    payload.append(buffer, static_cast<std::size_t>(n));
  std::uint64_t number = 0;
  std::string const flaw = flawOf(payload, record.getSubject()->getName().str(), number);
  if (!flaw.empty())
    complain(flaw);
  ++counts.reads;
}

void persist(std::string const& name, std::mt19937& random, Counts& counts)
{
  // Some are of higher priority, and all of those and some others expire as
  // soon as they are stored.
  bool const high = random() % 10 == 0;
  long const seconds = high || random() % 5 == 0 ? 0 : 3600;
  DiscoveryStatus const status =
      stored::write(name, nextNumber++, random() % 3000, high ? 2 : 1, seconds);
  if (status == DS_DATA_EXISTS)
    ++counts.refused;
  else if (status == DS_SUCCESS)
    ++counts.writes;
  else
    complain("persisting " + name + " failed with " + std::to_string(status));
}

void walk(Counts& counts)
{
  AutoDereference<DiscoveryIterator> const iterator(
      getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
  while (AutoDereference<Discovery> const record{iterator->getNext()})
    checkRecord(*record, counts);
  ++counts.walks;
}

} // namespace

int main(int argc, char** argv)
{
  if (argc != 5)
    return 2;
  int const threads = std::atoi(argv[1]);
  unsigned const names = static_cast<unsigned>(std::atoi(argv[2]));
  std::chrono::seconds const duration(std::atoi(argv[3]));
  unsigned const seed = static_cast<unsigned>(std::atoi(argv[4]));
  nextNumber = std::uint64_t(seed) << 40;

  // The log counts a line that comes again instead of writing it.
  std::atomic<long> zeroLength{0};
  std::atomic<long> notLoaded{0};
  std::atomic<long> notLocked{0};
  LoggerFactory::setObserver(
      [&](LogLine const& line)
      {
        zeroLength += line.text.find("Zero length xml file") != std::string::npos;
        notLocked += line.text.starts_with("Unable to lock ");
        notLoaded += line.text.find(".xml could not be loaded") != std::string::npos;
      });

  umask(027); // as the service's; a wider directory is closed, with a line
  getDiscoveryDBDatabase()->init("");
  Counts counts;
  auto const end = std::chrono::steady_clock::now() + duration;
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i)
    workers.emplace_back(
        [&, i]
        {
          std::mt19937 random(seed * 100 + static_cast<unsigned>(i));
          while (std::chrono::steady_clock::now() < end)
          {
            std::string const name = "subject" + std::to_string(random() % names);
            switch (random() % 8)
            {
            case 0:
              walk(counts);
              break;
            case 1:
            case 2:
            case 3:
            case 4:
              persist(name, random, counts);
              break;
            default:
              if (AutoDereference<Discovery> const record{
                      getDiscoveryDBDatabase()->getDiscovery(metadataFile(name).c_str())})
                checkRecord(*record, counts);
            }
          }
        });
  for (auto& worker : workers)
    worker.join();
  std::cout << "writes " << counts.writes << " refused " << counts.refused << " reads "
            << counts.reads << " walks " << counts.walks << " absent " << counts.absent << " empty "
            << zeroLength << " unloaded " << notLoaded << " unlocked " << notLocked << std::endl;
  LoggerFactory::setObserver({});
  return 0;
}
