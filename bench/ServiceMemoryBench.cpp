// The memory of a service whose whole database several readers walk at once.

#include "bench/Bench.h"
#include "bench/Records.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <thread>

namespace tqbench
{
namespace
{

using namespace std::chrono_literals;

constexpr int READERS = 4;
constexpr int WALKS = 3;
constexpr auto SAMPLE_PAUSE = 20ms;
constexpr auto START_DEADLINE = 60s;
constexpr char HOST[] = "benchmaster";

unsigned short freePort()
{
  int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  require(::bind(fd, generic, size) == 0 && ::getsockname(fd, generic, &size) == 0,
          "no port on loopback");
  ::close(fd);
  return ntohs(address.sin_port);
}

void writeConfiguration(std::string const& root)
{
  std::filesystem::create_directories(root + "/etc");
  std::ofstream out(root + "/etc/tq.conf");
  out << "SERVER = " << HOST << "\nCLIENT_NAME = " << HOST << "\nHOST_ADDRESS." << HOST
      << " = 127.0.0.1\nORB_BIND = 127.0.0.1\nORB_PORT.DiscoveryService = " << freePort()
      << "\nLOG_FILE = " << root << "/tqdisco.log\n";
}

// tqdisco with the root that TESSARINE_ROOT names.
class ServiceProcess
{
public:
  explicit ServiceProcess(std::string program)
  {
    char* arguments[] = {program.data(), nullptr};
    require(::posix_spawn(&m_pid, program.c_str(), nullptr, nullptr, arguments, environ) == 0,
            "tqdisco cannot be started");
  }
  ~ServiceProcess()
  {
    ::kill(m_pid, SIGTERM);
    ::waitpid(m_pid, nullptr, 0);
  }
  ServiceProcess(ServiceProcess const&) = delete;
  ServiceProcess& operator=(ServiceProcess const&) = delete;

  // Resident memory in KiB.
  double memory() const
  {
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with("VmRSS:"))
        return std::stod(line.substr(6));
    throw std::runtime_error("tqdisco has ended");
  }

private:
  pid_t m_pid = 0;
};

Remote::DiscoveryService_ptr connect(Orb& orb)
{
  OzfHostname host;
  host.setHostname(HOST);
  auto const deadline = std::chrono::steady_clock::now() + START_DEADLINE;
  for (;;)
  {
    try
    {
      CORBA::Object_var const object =
          orb.resolveObject(host, "DiscoveryService", "DiscoveryService", ACE_Time_Value::zero);
      Remote::DiscoveryService_var service = Remote::DiscoveryService::_narrow(object);
      if (!CORBA::is_nil(service))
        return service._retn();
    }
    catch (CORBA::Exception const&)
    {
    }
    require(std::chrono::steady_clock::now() < deadline, "tqdisco does not answer");
    std::this_thread::sleep_for(50ms);
  }
}

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
  writeConfiguration(settings.database);
  reloadConfiguration();
  ServiceProcess const process(settings.service);
  Orb orb(0, "", "tqbench", 0, 0);
  require(orb.init() && orb.run(0) == 0, "no ORB");
  Remote::DiscoveryService_var service = connect(orb);
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
