#include "tools/Connection.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"
#include "ozf/config/IpAddress.h"
#include "ozf/config/ProductRoot.h"
#include "tools/Output.h"
#include "tools/Table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char ADVICE[] =
    "Is tqdisco running there? \"systemctl status tqdisco\" and its log tell. "
    "Another host or port is named with --master HOST[:PORT].";

// As complain, while another thread may be printing: the stream for complaints
// would flush what that one is writing to.
void complainBeside(std::string const& message)
{
  std::string const text =
      wrapped(shown("tqdiscoctl: " + message), terminalWidth(STDERR_FILENO)) + '\n';
  for (std::size_t done = 0; done < text.size();)
  {
    ssize_t const written = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR)
      return;
    done += static_cast<std::size_t>(std::max<ssize_t>(written, 0));
  }
}

} // namespace

void addConnectionOptions(CLI::App& application, ConnectionOptions& options)
{
  application
      .add_option("-m,--master", options.master,
                  "The master's service, or, for commands that read, those of several with commas "
                  "between; default: MASTERS, or else SERVER, of the configuration")
      ->type_name("HOST[:PORT],...");
  application
      .add_option("--timeout", options.timeout,
                  "How long the command may wait in all; default: 300, of them 30 for one answer")
      ->check(CLI::Range(1L, 3600L))
      ->type_name("SECONDS");
}

void TimeLimit::start(ConnectionOptions const& options, std::string const& place, Orb& orb)
{
  stop();
  m_stopped = false;
  m_end = Steady::now() + std::chrono::seconds(options.whole());
  m_margin = std::chrono::seconds(std::min(options.call(), options.whole() / 4));
  orb.setRequestTimeout(ACE_Time_Value(options.call()));
  m_thread = std::thread([this, options, place, &orb] { run(options, place, orb); });
}

void TimeLimit::stop()
{
  {
    std::lock_guard const guard(m_mutex);
    m_stopped = true;
  }
  m_changed.notify_all();
  if (m_thread.joinable())
    m_thread.join();
}

std::chrono::milliseconds TimeLimit::left() const
{
  auto const rest = std::chrono::duration_cast<std::chrono::milliseconds>(m_end - Steady::now());
  return std::max(rest, std::chrono::milliseconds(0));
}

bool TimeLimit::nearlyOver() const { return left() < m_margin; }

void TimeLimit::run(ConnectionOptions const& options, std::string const& place, Orb& orb)
{
  constexpr std::chrono::milliseconds STEP(100);
  // A call that has all of the time ends up to a second after it, and what comes
  // of it is still to be told.
  constexpr std::chrono::milliseconds GRACE(1500);
  std::unique_lock lock(m_mutex);
  while (!m_changed.wait_for(lock, STEP, [this] { return m_stopped; }))
  {
    // Whole seconds, as other threads are calling.
    auto const rest = std::chrono::duration_cast<std::chrono::seconds>(left()).count();
    if (rest < options.call())
      orb.setRequestTimeout(ACE_Time_Value(std::max<std::time_t>(rest, 1)));
    if (Steady::now() < m_end + GRACE)
      continue;
    complainBeside("gave up after " +
                   counted(static_cast<std::size_t>(options.whole()), "second", "seconds") +
                   ": the service at " + place +
                   ", or a host that it names, is too slow or comes to no end; --timeout allows "
                   "more");
    // Other threads are in the middle of their calls.
    _exit(EXIT_FAILED);
  }
}

Connection::~Connection()
{
  m_clock.stop();
  m_service = Remote::DiscoveryService::_nil();
}

// Of several.
int Connection::chooseMasters(MasterList const& list)
{
  m_options.several = true;
  m_masters.choose(list.hosts, {m_options.call(), m_options.answer()});
  m_place = m_masters.places();
  return EXIT_DONE;
}

int Connection::chooseMaster()
{
  MasterList list;
  if (!m_options.master.empty())
  {
    if (std::string const mistake = parseMasters(m_options.master, list); !mistake.empty())
    {
      complain(mistake);
      return EXIT_USAGE;
    }
    if (list.hosts.size() > 1 && m_asks == ONE)
    {
      complain("several masters are named, and this command takes one; those that read take more");
      return EXIT_USAGE;
    }
    if (!list.port.empty())
    {
      overrideConfiguration(configKey("ORB_PORT.").name + std::string(DISCOVERY_SERVICE),
                            list.port);
      for (std::string const& host : list.hosts)
        overrideConfiguration(configKey("HOST_PORT.").name + host, list.port);
    }
  }
  else if (m_asks == SEVERAL)
  {
    if (std::string const mistake = configuredMasters(list); !mistake.empty())
    {
      complain(mistake);
      return EXIT_FAILED;
    }
    if (list.hosts.size() == 1)
      m_options.master = list.hosts.front();
  }
  if (list.hosts.size() > 1)
    return chooseMasters(list);
  if (list.hosts.size() == 1)
  {
    m_master = list.hosts.front();
    overrideConfiguration(configKey("SERVER").name, m_master);
  }
  else
  {
    auto const configuration = getConfiguration();
    std::string const* const server = configuration->find(configKey("SERVER"));
    if (server == nullptr || server->empty())
    {
      complain("no master is known: " +
                   std::string(configuration->readable() ? "there is no SERVER in "
                                                         : "cannot read the configuration ") +
                   configuration->path(),
               {"Name the service with --master HOST[:PORT]."});
      return EXIT_NOT_REACHABLE;
    }
    m_master = *server;
  }
  m_place = placeOf(m_master);
  return EXIT_DONE;
}

int Connection::open()
{
  int const result = prepare();
  return result == EXIT_DONE ? reachMaster() : result;
}

int Connection::prepare()
{
  if (int const result = chooseMaster(); result != EXIT_DONE)
    return result;

  if (std::string error; !m_research.start("tqdiscoctl", error))
  {
    complain(error);
    return EXIT_FAILED;
  }
  startClock();
  return EXIT_DONE;
}

int Connection::reachMaster()
{
  if (several())
  {
    int const result = m_masters.reach(*m_research.orb(), m_options.call());
    m_place = m_masters.places();
    return result;
  }
  m_service = connect(m_master);
  if (CORBA::is_nil(m_service))
    return whyNotConnected();
  learnMaster();
  return EXIT_DONE;
}

Remote::DiscoveryService_ptr Connection::connect(std::string const& host)
{
  std::string const place = placeOf(host);
  Progress progress("Connecting to " + place);
  Reached reached = reach(*m_research.orb(), host, m_options.call());
  progress.clear();
  m_refused = reached.result == EXIT_REFUSED;
  if (reached.addresses.empty())
    complain("the host name \"" + shown(host) + "\" cannot be resolved: " + reached.reason,
             {"Give an address, or set HOST_ADDRESS." + shown(host) + " in " +
              getConfigurationPath() + "."});
  else if (reached.result == EXIT_REFUSED)
    complain("refused by the service at " + place + ": " + reached.reason);
  else if (reached.result != EXIT_DONE)
    complain("no discovery service at " + place + ": " + reached.reason, {ADVICE});
  return reached.service._retn();
}

bool Connection::answers(Record const& record) const
{
  return several() ? m_masters.answers(record) : answers();
}

bool Connection::answers() const
{
  if (several())
    return m_masters.missing() < m_masters.size();
  if (!m_lost.empty())
    return false;
  try
  {
    if (!m_service->_non_existent())
      return true;
    m_lost = "it is shutting down";
  }
  catch (CORBA::Exception const& exception)
  {
    m_lost = reasonOf(exception);
  }
  return false;
}

int Connection::conclude(int exitCode) const
{
  if (several())
    return m_masters.conclude(exitCode);
  if ((exitCode != EXIT_FAILED && exitCode != EXIT_PARTLY) || answers())
    return exitCode;
  complain("the service at " + m_place + " does not answer any more: " + m_lost, {ADVICE});
  return exitCode == EXIT_FAILED ? EXIT_NOT_REACHABLE : exitCode;
}

// Records name the host that has them as the service calls itself. A user who
// gave an address, or a port that was forwarded, may not be able to resolve or
// to reach that name; it is the host that was reached all the same. So it is where
// the configuration names the master by its address.
void Connection::learnMaster()
{
  bool const named = !m_options.master.empty();
  if (!named && !IpAddress::fromText(m_master))
    return;
  Lister const lister = lookAtLister(m_service, named);
  std::string reason;
  std::string const addresses = addressesOf(m_master, reason);
  if (!lister.name.empty() && !addresses.empty())
  {
    overrideConfiguration(configKey("HOST_ADDRESS.").name + lister.name, addresses);
    overrideConfiguration(configKey("HOST_PORT.").name + lister.name,
                          std::to_string(getServicePort(DISCOVERY_SERVICE, m_master)));
  }
  if (lister.relays)
    complain("the service at " + m_place + " is not the master's: \"" + shown(lister.name) +
             "\" is a client, which lists its master's discoveries but has none of them to show. "
             "Name the master with --master, or leave --master out.");
}

} // namespace tqdiscoctl
