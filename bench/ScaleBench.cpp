// A fleet of ten thousand hosts over one day, simulated in time from what a
// write costs here.

#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Writers.h"

#include <dirent.h>
#include <netinet/in.h>
#include <linux/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <random>

namespace tqbench
{
namespace
{

constexpr std::size_t HOSTS = 10000;
constexpr std::size_t DAY = 24 * 3600;

constexpr std::size_t CLIENTS = 50;
constexpr std::size_t WRITES = 40;
constexpr int ROUNDS = 5;

// The explorers of a host: how often they report, in seconds, and how much.
struct Explorer
{
  std::size_t interval;
  std::size_t chunks;
};
constexpr Explorer EXPLORERS[] = {{300, 4}, {3600, 1}, {60, 1}};

constexpr double FLUSHES = 3; // payload, directory, metadata
constexpr double FILES = 2;

// What one write costs the master.
struct Cost
{
  double calls = 0;
  double bytes = 0;     // on the wire, both ways, without the lower layers
  double processor = 0; // seconds of the service
  double seconds = 0;   // while many write at once
};

// Bytes that went over all sockets of this process.
double bytesOnTheWire()
{
  double bytes = 0;
  DIR* const folder = ::opendir("/proc/self/fd");
  require(folder != nullptr, "no list of descriptors");
  while (dirent const* const entry = ::readdir(folder))
  {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(std::atoi(entry->d_name), IPPROTO_TCP, TCP_INFO, &info, &size) == 0)
      bytes += static_cast<double>(info.tcpi_bytes_acked + info.tcpi_bytes_received);
  }
  ::closedir(folder);
  return bytes;
}

Cost measure(Writing& writing, std::size_t chunks)
{
  std::string const text = payloadOf(chunks);
  auto const write = [&](std::size_t number)
  { writeByCalls(writing.connectOfFleet(number / WRITES), number, text); };
  together(CLIENTS, WRITES, write);
  constexpr double ALL = CLIENTS * WRITES;
  std::vector<double> seconds;
  std::vector<double> processor;
  for (int round = 0; round < ROUNDS; ++round)
  {
    double const before = writing.process().processorTime();
    auto const times = together(CLIENTS, WRITES, write);
    seconds.push_back(*std::max_element(times.begin(), times.end()) / ALL);
    processor.push_back((writing.process().processorTime() - before) / ALL);
  }
  // One connection, so that all that is sent is there to be counted.
  double const sent = bytesOnTheWire();
  together(1, WRITES, write);
  double const bytes = (bytesOnTheWire() - sent) / WRITES;
  // Connecting asks for the type; then one call opens and one closes.
  return {3 + static_cast<double>(chunks), bytes, median(processor), median(seconds)};
}

struct Day
{
  std::vector<std::size_t> writes; // by explorer
  std::size_t busiest = 0;         // writes in the busiest second
};

// Every host reports at once when its push timer starts, then by intervals, on
// passes that are five seconds apart. The timer starts 283 seconds after the
// service where names have no digits.
Day simulate(std::size_t hosts, std::size_t startsWithin)
{
  constexpr std::size_t FIRST_PASS = 283;
  constexpr std::size_t PERIOD = 5;
  std::mt19937 random(1);
  std::uniform_int_distribution<std::size_t> starts(0, startsWithin - 1);
  std::vector<std::size_t> seconds(DAY);
  Day day{std::vector<std::size_t>(std::size(EXPLORERS)), 0};
  for (std::size_t host = 0; host < hosts; ++host)
  {
    std::size_t const first = starts(random) + FIRST_PASS;
    for (std::size_t i = 0; i < std::size(EXPLORERS); ++i)
    {
      std::size_t const step = (EXPLORERS[i].interval + PERIOD - 1) / PERIOD * PERIOD;
      for (std::size_t at = first; at < DAY; at += step)
      {
        ++seconds[at];
        ++day.writes[i];
      }
    }
  }
  day.busiest = *std::max_element(seconds.begin(), seconds.end());
  return day;
}

} // namespace

std::vector<Row> benchScale(Settings const& settings)
{
  Writing writing(settings);
  std::vector<Cost> costs;
  for (Explorer const& explorer : EXPLORERS)
    costs.push_back(measure(writing, explorer.chunks));

  Day const day = simulate(HOSTS, DAY / 24);
  Day const together = simulate(HOSTS, 60);
  double const writes =
      static_cast<double>(std::accumulate(day.writes.begin(), day.writes.end(), std::size_t{0}));
  auto const sum = [&](double Cost::*part)
  {
    double total = 0;
    for (std::size_t i = 0; i < costs.size(); ++i)
      total += costs[i].*part * static_cast<double>(day.writes[i]);
    return total;
  };
  constexpr double HOSTS_OF_DAY = HOSTS;
  double const seconds = DAY;
  double const processors = static_cast<double>(::sysconf(_SC_NPROCESSORS_ONLN));
  double const processor = sum(&Cost::processor) / seconds;
  double const disk = sum(&Cost::seconds) / seconds;
  std::string const fleet = std::to_string(HOSTS) + " hosts, a day: ";
  auto const figure = [](std::string const& work, double value, char const* unit)
  { return Row{work, unit, value, "", {}, {}}; };
  return {
      figure("a write of 4 KiB, many at once", costs[0].seconds * 1e6, "us"),
      figure("a write of 4 KiB, processor time of the service", costs[0].processor * 1e6, "us"),
      figure("a write of 4 KiB, on the wire", costs[0].bytes, "bytes"),
      figure("a write of 1 KiB, many at once", costs[1].seconds * 1e6, "us"),
      figure("a write of 1 KiB, processor time of the service", costs[1].processor * 1e6, "us"),
      figure("a write of 1 KiB, on the wire", costs[1].bytes, "bytes"),
      figure(fleet + "writes", writes / 1e6, "millions"),
      figure(fleet + "calls", sum(&Cost::calls) / 1e6, "millions"),
      figure(fleet + "on the wire", sum(&Cost::bytes) / (1 << 30), "GiB"),
      figure(fleet + "flushes", writes * FLUSHES / 1e6, "millions"),
      figure(fleet + "files in the database", HOSTS_OF_DAY * std::size(EXPLORERS) * FILES, ""),
      figure(fleet + "writes a second", writes / seconds, ""),
      figure(fleet + "busiest second, started within an hour", static_cast<double>(day.busiest),
             "writes"),
      figure(fleet + "busiest second, started within a minute",
             static_cast<double>(together.busiest), "writes"),
      figure(fleet + "processor time", processor * 100, "% of one"),
      figure(fleet + "time of writing, many at once", disk * 100, "%"),
      figure("hosts at which the processors are busy", HOSTS_OF_DAY * processors / processor, ""),
      figure("hosts at which writing takes all the time", HOSTS_OF_DAY / disk, "")};
}

} // namespace tqbench
