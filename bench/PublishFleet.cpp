#include "bench/PublishFleet.h"

#include "bench/Bench.h"
#include "bench/Records.h"
#include "tests/support/PlacedRecords.h"

#include <unistd.h>

#include <atomic>
#include <thread>

namespace tqbench
{
namespace
{

constexpr std::size_t WRITERS = 2;
constexpr std::size_t PACKAGES_OF_ONE_IN = 100;

std::string fact(std::string const& name, std::string const& value)
{
  return '<' + name + '>' + value + "</" + name + '>';
}

std::string item(std::string const& explorer, std::string const& name, std::string const& facts)
{
  return "<DISCOVERED Name=\"" + name + "\"><ExplorerData Name=\"" + explorer + "\">" + facts +
         "</ExplorerData></DISCOVERED>";
}

std::string document(std::string const& items)
{
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveredItems>" + items +
         "</DiscoveredItems>\n";
}

// What filesystem tells of a host with eight file systems, of one of which something else is in
// use each time.
std::string fileSystems(std::size_t host, std::size_t round)
{
  constexpr unsigned long long SIZE = 214'748'364'800;
  std::string items;
  int number = 0;
  for (std::string const place :
       {"/", "/boot", "/home", "/srv", "/tmp", "/usr", "/var", "/var/log"})
  {
    ++number;
    bool const isChanging = place == "/var";
    unsigned long long const used =
        SIZE / 100 * ((host * 7 + static_cast<std::size_t>(number) * 11) % 97) +
        (isChanging ? 4096 * (round + 1) : 0);
    items += item(
        "filesystem", place,
        fact("MountPoint", place) + fact("Type", number % 3 == 0 ? "xfs" : "ext4") +
            fact("Kind", "local") + fact("Source", "/dev/sda" + std::to_string(number)) +
            fact("Root", "/") + fact("Device", "8:" + std::to_string(number)) +
            fact("Options", "rw,relatime,errors=remount-ro") +
            fact("Uuid", "0d15ea5e-aaaa-4bbb-8ccc-" + std::to_string(100'000'000'000 + host)) +
            fact("Size", std::to_string(SIZE)) + fact("Used", std::to_string(used)) +
            fact("Available", std::to_string(SIZE - used)) +
            fact("Use", std::to_string(used * 100 / SIZE + 1) + '%') + fact("Inodes", "13107200") +
            fact("InodesUsed", std::to_string(4000 + host % 9000)));
  }
  return document(items);
}

std::string hostFacts(std::size_t host)
{
  std::string const name = subjectName(host);
  return document(item(
      "host", name,
      fact("HostName", name) + fact("MachineId", "9d2f6a8c41e74b0f8a3c" + std::to_string(host)) +
          fact("OsName", "Debian GNU/Linux 12 (bookworm)") + fact("OsId", "debian") +
          fact("OsVersion", "12") + fact("KernelName", "Linux") +
          fact("KernelRelease", "6.1.0-28-amd64") +
          fact("KernelVersion", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.119-1") +
          fact("Architecture", "x86_64") + fact("Processors", std::to_string(2 + host % 30)) +
          fact("ProcessorModel", "Example Processor E5 @ 2.40GHz") +
          fact("Memory", std::to_string(16'660'750'336 + host)) + fact("Swap", "2147479552") +
          fact("BootTime", "2026-01-01T10:00:00Z") + fact("TimeZone", "Europe/Berlin") +
          fact("Virtualization", "kvm") + fact("Container", "none")));
}

std::string serviceFacts(std::size_t host, std::size_t round)
{
  std::string items =
      item("service", subjectName(host),
           fact("Kind", "service") + fact("Role", "client") + fact("Version", "1.4.0") +
               fact("StartTime", "2026-01-01T10:00:00Z") + fact("StoredDiscoveries", "12") +
               fact("Connections", "1") + fact("ConnectionsTaken", std::to_string(100 + round)));
  for (std::string const name : {"filesystem", "host"})
    items += item("service", name,
                  fact("Kind", "push") + fact("Type", "client") + fact("Priority", "1") +
                      fact("LastResult", "success") + fact("Origin", "libtqexplorer.so") +
                      fact("LastDuration", std::to_string(1000 + (host + 31 * round) % 5000)) +
                      fact("Runs", std::to_string(round + 1)) + fact("Failures", "0"));
  return document(items);
}

// Few hosts have the same selection of versions.
std::string packages(std::size_t host)
{
  std::string items;
  for (std::size_t i = 0; i < PublishFleet::PACKAGES; ++i)
  {
    std::string const name = i == 0 ? "openssl" : "package" + std::to_string(i);
    items += item("software", name,
                  fact("Package", name) +
                      fact("Version", "1." + std::to_string((host / PACKAGES_OF_ONE_IN + i) % 7)) +
                      fact("Architecture", "amd64") + fact("Manager", "dpkg"));
  }
  return document(items);
}

// The numbers below the end, in any order.
template <class Work>
void shareOut(std::size_t end, Work const& work)
{
  std::atomic<std::size_t> next = 0;
  std::atomic<bool> failed = false;
  std::vector<std::jthread> writers;
  for (std::size_t i = 0; i < WRITERS; ++i)
    writers.emplace_back(
        [&]
        {
          try
          {
            for (std::size_t number; (number = next++) < end;)
              work(number);
          }
          catch (std::exception const&)
          {
            failed = true;
          }
        });
  writers.clear();
  require(!failed, "a database could not be filled");
}

} // namespace

PublishFleet::PublishFleet(std::size_t masters, std::size_t hostsOfEach) : m_hosts(hostsOfEach)
{
  using tqtest::LiveService;
  for (std::size_t i = 1; i <= masters; ++i)
  {
    std::string const name = 'm' + std::to_string(i);
    std::string const address = "127.0.0." + std::to_string(i);
    m_masters.push_back(m_masters.empty()
                            ? std::make_unique<LiveService>(LiveService::WITHOUT_EXPLORERS, name)
                            : std::make_unique<LiveService>(LiveService::WITHOUT_EXPLORERS, name,
                                                            address, m_masters.front()->port()));
  }
  shareOut(masters, [this](std::size_t master) { fill(master); });
  std::size_t const telling = (hosts() + PACKAGES_OF_ONE_IN - 1) / PACKAGES_OF_ONE_IN;
  m_records = hosts() * EACH + telling;
  ::sync();
}

void PublishFleet::fill(std::size_t master)
{
  std::string const directory = m_masters[master]->database();
  std::filesystem::create_directories(directory);
  for (std::size_t host = master; host < hosts(); host += m_masters.size())
  {
    std::string const subject = subjectName(host);
    records::place(directory, "filesystem", subject, fileSystems(host, 0));
    records::place(directory, "host", subject, hostFacts(host));
    records::place(directory, "service", subject, serviceFacts(host, 0));
    if (host % PACKAGES_OF_ONE_IN == 0)
      records::place(directory, "software", subject, packages(host));
  }
}

void PublishFleet::start()
{
  for (auto const& master : m_masters)
    master->launch();
  for (auto const& master : m_masters)
    require(master->process().awaitError("main: Started, version"), "a master does not start");
}

void PublishFleet::report(std::size_t count)
{
  shareOut(count, [this](std::size_t number) { reportOne(m_reports + number); });
  m_reports += count;
}

void PublishFleet::reportOne(std::size_t number)
{
  std::size_t const host = number / 2 % hosts();
  std::size_t const round = 1 + number / 2 / hosts();
  bool const isOfService = number % 2 == 0;
  records::place(m_masters[host % m_masters.size()]->database(),
                 isOfService ? "service" : "filesystem", subjectName(host),
                 isOfService ? serviceFacts(host, round) : fileSystems(host, round));
}

std::string PublishFleet::configuration(std::size_t masters) const
{
  std::string lines =
      "CLIENT_NAME = desk\nORB_PORT.DiscoveryService = " + std::to_string(m_masters[0]->port()) +
      '\n';
  for (std::size_t i = 0; i < masters; ++i)
    lines += "PUBLISH_MASTERS = " + m_masters[i]->name() + "\nHOST_ADDRESS." +
             m_masters[i]->name() + " = " + m_masters[i]->address() + '\n';
  return lines;
}

} // namespace tqbench
