#include "bench/Service.h"

#include "bench/Bench.h"
#include "bench/Records.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/base/SystemError.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace tqbench
{
namespace
{

using namespace std::chrono_literals;
using namespace Quillon::Tessarine::Ozf;

constexpr auto START_DEADLINE = 60s;
constexpr auto RETRY_PAUSE = 50ms;

// Those that this process was started with.
cpu_set_t const& allProcessors()
{
  static cpu_set_t const all = []
  {
    cpu_set_t set;
    CPU_ZERO(&set);
    require(::sched_getaffinity(0, sizeof set, &set) == 0, "no list of processors");
    return set;
  }();
  return all;
}

cpu_set_t oneProcessor(int place)
{
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int processor = 0; processor < CPU_SETSIZE; ++processor)
    if (CPU_ISSET(processor, &allProcessors()) && place-- == 0)
      CPU_SET(processor, &one);
  return one;
}

void runOn(pid_t process, cpu_set_t const& processors)
{
  for (auto const& thread :
       std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task"))
  {
    pid_t const number = std::stoi(thread.path().filename().string());
    require(::sched_setaffinity(number, sizeof processors, &processors) == 0 || errno == ESRCH,
            "a process cannot be given a processor");
  }
}

} // namespace

Placement::Placement(Servers where, std::vector<pid_t> servers) : m_servers(std::move(servers))
{
  runOn(::getpid(), oneProcessor(0));
  for (pid_t const server : m_servers)
    runOn(server, oneProcessor(where == APART ? 1 : 0));
}

Placement::~Placement()
{
  runOn(::getpid(), allProcessors());
  for (pid_t const server : m_servers)
    runOn(server, allProcessors());
}

bool Placement::canBeApart() { return CPU_COUNT(&allProcessors()) >= 2; }

sockaddr_in loopbackAt(unsigned short port, in_addr_t address)
{
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(address);
  name.sin_port = htons(port);
  return name;
}

unsigned processors() { return std::max(std::thread::hardware_concurrency(), 1U); }

pid_t startProgram(std::vector<std::string> words, std::string const& output)
{
  std::vector<char*> arguments;
  for (std::string& word : words)
    arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  for (int const fd : {STDOUT_FILENO, STDERR_FILENO})
    ::posix_spawn_file_actions_addopen(&actions, fd, output.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                       0644);
  pid_t pid = 0;
  int const failure =
      ::posix_spawn(&pid, words.front().c_str(), &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  require(failure == 0, "a program that is compared with cannot be started");
  return pid;
}

void raiseDescriptorLimit(std::size_t connections)
{
  constexpr rlim_t MORE = 100;
  rlimit limit{};
  require(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "no limit of open files");
  limit.rlim_cur = limit.rlim_max;
  require(::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur > connections + MORE,
          "too few files may be open");
}

unsigned short freePort()
{
  int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopbackAt(0);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  require(::bind(fd, generic, size) == 0 && ::getsockname(fd, generic, &size) == 0,
          "no port on loopback");
  ::close(fd);
  return ntohs(address.sin_port);
}

void awaitListener(unsigned short port)
{
  auto const end = std::chrono::steady_clock::now() + START_DEADLINE;
  sockaddr_in const address = loopbackAt(port);
  for (;;)
  {
    UniqueFd const connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(connection.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) ==
        0)
      return;
    require(std::chrono::steady_clock::now() < end, "nobody listens at a port");
    std::this_thread::sleep_for(RETRY_PAUSE);
  }
}

void writeConfiguration(std::string const& root, unsigned short port, std::string const& more)
{
  std::filesystem::create_directories(root + "/etc");
  std::ofstream out(root + "/etc/tq.conf");
  out << "SERVER = " << HOST << "\nCLIENT_NAME = " << HOST << "\nHOST_ADDRESS." << HOST
      << " = 127.0.0.1\nORB_BIND = 127.0.0.1\nORB_PORT.DiscoveryService = " << port
      << "\nLOG_FILE = " << root << "/tqdisco.log\n"
      << more;
}

ServiceProcess::ServiceProcess(std::string program)
{
  char* arguments[] = {program.data(), nullptr};
  require(::posix_spawn(&m_pid, program.c_str(), nullptr, nullptr, arguments, environ) == 0,
          "tqdisco cannot be started");
}

ServiceProcess::~ServiceProcess()
{
  ::kill(m_pid, SIGTERM);
  ::waitpid(m_pid, nullptr, 0);
}

double ServiceProcess::statusOf(char const* key) const
{
  std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(key))
      return std::stod(line.substr(line.find(':') + 1));
  throw std::runtime_error("tqdisco has ended");
}

double ServiceProcess::memory() const { return statusOf("VmRSS:"); }

double ServiceProcess::mostMemory() const { return statusOf("VmHWM:"); }

double ServiceProcess::threads() const { return statusOf("Threads:"); }

double processorTimeOf(pid_t process)
{
  std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(stat, text);
  // What follows the name, which may hold blanks; the times are 12 and 13 on.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  double user = 0;
  double system = 0;
  std::string skipped;
  for (int field = 0; field < 11; ++field)
    fields >> skipped;
  fields >> user >> system;
  require(!fields.fail(), "a process that is measured has ended");
  return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

CORBA::Object_ptr connectTo(Orb& orb, char const* service, char const* name)
{
  OzfHostname host;
  host.setHostname(HOST);
  auto const deadline = std::chrono::steady_clock::now() + START_DEADLINE;
  for (;;)
  {
    try
    {
      CORBA::Object_var object = orb.resolveObject(host, service, name, ACE_Time_Value::zero);
      if (!CORBA::is_nil(object) && !object->_non_existent())
        return object._retn();
    }
    catch (CORBA::Exception const&)
    {
    }
    require(std::chrono::steady_clock::now() < deadline, "a service does not answer");
    std::this_thread::sleep_for(RETRY_PAUSE);
  }
}

namespace
{

struct Answer
{
  double seconds = 0; // of the median query
  bool complete = false;
};

} // namespace

double queryApart(int queries, std::chrono::milliseconds pause)
{
  int ends[2];
  require(::pipe(ends) == 0, "no pipe");
  pid_t const pid = ::fork();
  require(pid >= 0, "no process");
  if (pid == 0)
  {
    Answer answer;
    try
    {
      Orb orb(0, "", "tqbench", 0, 0);
      require(orb.init() && orb.run(0) == 0, "no ORB");
      Remote::DiscoveryService_var service =
          connectTo<Remote::DiscoveryService>(orb, "DiscoveryService", "DiscoveryService");
      std::vector<double> times;
      for (int i = 0; i < queries; ++i)
      {
        std::this_thread::sleep_for(pause);
        times.push_back(timed(
            [&]
            {
              Remote::DiscoveryIterator_var const iterator = service->queryDiscoveries(
                  DQ_DISCOVERY_DATA, TYPE, subjectName(7).c_str(), AUTHORITY);
              Remote::DiscoverySeq_var const page = iterator->getNextPage();
              require(page->length() == 1, "the discovery was not found");
              iterator->release();
            }));
      }
      answer = {median(times), true};
    }
    catch (...)
    {
    }
    ssize_t const count = ::write(ends[1], &answer, sizeof answer);
    ::_exit(count == sizeof answer ? 0 : 1);
  }
  ::close(ends[1]);
  Answer answer;
  ssize_t const count = ::read(ends[0], &answer, sizeof answer);
  ::close(ends[0]);
  ::waitpid(pid, nullptr, 0);
  require(count == sizeof answer && answer.complete, "the service could not be queried");
  return answer.seconds;
}

namespace
{

std::string const& preparedFor(std::string const& database, std::string const& program)
{
  openDatabase(database);
  writeConfiguration(database, freePort());
  require(reloadConfiguration(), "the configuration was refused");
  return program;
}

} // namespace

StoredService::StoredService(std::string const& database, std::string const& program)
    : process(preparedFor(database, program)), orb(0, "", "tqbench", 0, 0)
{
  require(orb.init() && orb.run(0) == 0, "no ORB");
  service = connectTo<Remote::DiscoveryService>(orb, "DiscoveryService", "DiscoveryService");
}

} // namespace tqbench
