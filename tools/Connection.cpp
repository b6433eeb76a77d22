#include "tools/Connection.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostAddresses.h"
#include "ozf/config/HostRole.h"
#include "ozf/config/IpAddress.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/tls/CurrentTls.h"
#include "tools/Output.h"
#include "tools/Table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <netdb.h>
#include <sys/socket.h>
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

bool isPort(std::string const& text)
{
  unsigned port = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port >= 1 && port <= 65535;
}

// The first address as text; reason says why there is none.
std::string resolve(std::string const& host, std::string& reason)
{
  AddressList const found = lookUpHost(host, reason);
  if (!found)
    return {};
  char address[NI_MAXHOST];
  if (int const error = getnameinfo(found->ai_addr, found->ai_addrlen, address, sizeof address,
                                    nullptr, 0, NI_NUMERICHOST);
      error != 0)
  {
    reason = gai_strerror(error);
    return {};
  }
  return address;
}

// What the host is called by, as HOST_ADDRESS has it; empty, with the reason, when there
// is nothing.
std::string addressesOf(std::string const& host, std::string& reason)
{
  std::string addresses;
  for (auto const& one : getHostAddresses(host))
    if (std::string const address = resolve(one, reason); !address.empty())
      addresses += (addresses.empty() ? "" : ", ") + address;
  return addresses;
}

std::string placeOf(std::string const& host)
{
  std::string const name = host.find(':') == std::string::npos ? host : "[" + host + "]";
  return shown(name) + ":" + std::to_string(getServicePort(DISCOVERY_SERVICE));
}

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

std::string reasonOf(CORBA::Exception const& exception)
{
  bool const isBroken = CORBA::TRANSIENT::_downcast(&exception) != nullptr ||
                        CORBA::COMM_FAILURE::_downcast(&exception) != nullptr;
  if (std::string refusal = lastTlsRefusal(); isBroken && !refusal.empty())
    return refusal;
  if (CORBA::TIMEOUT::_downcast(&exception) != nullptr)
    return "it does not answer in time";
  if (CORBA::TRANSIENT::_downcast(&exception) != nullptr)
    return "nothing accepts connections there";
  if (CORBA::COMM_FAILURE::_downcast(&exception) != nullptr)
    return currentTls() ? "the connection broke"
                        : "the connection broke; a service with TLS = only ends those without TLS";
  if (CORBA::OBJECT_NOT_EXIST::_downcast(&exception) != nullptr)
    return "what listens there is no discovery service";
  if (CORBA::NO_PERMISSION::_downcast(&exception) != nullptr)
    return "it does not allow this to who calls from here; ALLOW_READ, ALLOW_WRITE and "
           "ALLOW_CONTROL of its configuration say who may, and its log tells of the refusal";
  if (CORBA::BAD_PARAM::_downcast(&exception) != nullptr)
    return "this cannot be a host's name";
  return corbaExceptionText(exception);
}

void addConnectionOptions(CLI::App& application, ConnectionOptions& options)
{
  application
      .add_option("-m,--master", options.master,
                  "The master's service; default: SERVER of the configuration")
      ->type_name("HOST[:PORT]");
  application
      .add_option("--timeout", options.timeout,
                  "How long the command may wait in all; default: 300, of them 30 for one answer")
      ->check(CLI::Range(1L, 3600L))
      ->type_name("SECONDS");
}

bool parseMaster(std::string const& text, std::string& host, std::string& port)
{
  host = text;
  port.clear();
  if (text.starts_with('['))
  {
    auto const end = text.find(']');
    if (end == std::string::npos)
      return false;
    host = text.substr(1, end - 1);
    std::string const rest = text.substr(end + 1);
    if (!rest.empty() && !rest.starts_with(':'))
      return false;
    if (!rest.empty() && !isPort(port = rest.substr(1)))
      return false;
  }
  else if (std::count(text.begin(), text.end(), ':') == 1)
  {
    host = text.substr(0, text.find(':'));
    port = text.substr(text.find(':') + 1);
    if (!isPort(port))
      return false;
  }
  return !host.empty() && host.find_first_of(" \t\r\n/[]%") == std::string::npos;
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

int Connection::chooseMaster()
{
  if (!m_options.master.empty())
  {
    std::string port;
    if (!parseMaster(m_options.master, m_master, port))
    {
      complain("\"" + shown(m_options.master) +
               "\" names no service; use --master HOST, HOST:PORT or [ADDRESS]:PORT");
      return EXIT_USAGE;
    }
    overrideConfiguration(configKey("SERVER").name, m_master);
    if (!port.empty())
      overrideConfiguration(configKey("ORB_PORT.").name + std::string(DISCOVERY_SERVICE), port);
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
  m_service = connect(m_master);
  if (CORBA::is_nil(m_service))
    return whyNotConnected();
  learnMaster();
  return EXIT_DONE;
}

Remote::DiscoveryService_ptr Connection::connect(std::string const& host)
{
  std::string const place = placeOf(host);
  std::string reason;
  Progress progress("Connecting to " + place);
  if (addressesOf(host, reason).empty())
  {
    progress.clear();
    complain("the host name \"" + shown(host) + "\" cannot be resolved: " + reason,
             {"Give an address, or set HOST_ADDRESS." + shown(host) + " in " +
              getConfigurationPath() + "."});
    return Remote::DiscoveryService::_nil();
  }
  try
  {
    OzfHostname name;
    name.setHostname(host);
    CORBA::Object_var const object = m_research.orb()->resolveObject(
        name, DISCOVERY_SERVICE, DISCOVERY_SERVICE, ACE_Time_Value(m_options.call()));
    Remote::DiscoveryService_var service = Remote::DiscoveryService::_narrow(object);
    if (!CORBA::is_nil(service))
      return service._retn();
    reason = "what listens there is no discovery service";
  }
  catch (CORBA::NO_PERMISSION const& exception)
  {
    progress.clear();
    m_refused = true;
    complain("refused by the service at " + place + ": " + reasonOf(exception));
    return Remote::DiscoveryService::_nil();
  }
  catch (CORBA::Exception const& exception)
  {
    reason = reasonOf(exception);
  }
  progress.clear();
  complain("no discovery service at " + place + ": " + reason, {ADVICE});
  return Remote::DiscoveryService::_nil();
}

bool Connection::answers() const
{
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
  if ((exitCode != EXIT_FAILED && exitCode != EXIT_PARTLY) || answers())
    return exitCode;
  complain("the service at " + m_place + " does not answer any more: " + m_lost, {ADVICE});
  return exitCode == EXIT_FAILED ? EXIT_NOT_REACHABLE : exitCode;
}

// The first of these discoveries that is stored, and how the service that lists
// them calls itself. Only the beginning of the list is looked at.
bool Connection::findStored(char const* subject, char const* authority, Remote::Discovery& stored,
                            std::string& name) const
{
  constexpr CORBA::Long SOME = 64;
  Remote::DiscoveryIterator_var const iterator =
      m_service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, subject, authority);
  iterator->pageSize(SOME);
  Remote::DiscoverySeq_var page = iterator->getNextPage();
  iterator->release();
  for (CORBA::ULong i = 0; i < page->length(); ++i)
  {
    name = page[i].sourceHost.in();
    if (page[i].attributes.discoveryTime == 0)
      continue;
    stored = page[i];
    return true;
  }
  return false;
}

// Whether the service lists what it does not have: that of a client passes
// queries on to the master, but gives out nothing of what is stored.
bool Connection::onlyRelays(Remote::Discovery const& stored) const
{
  Remote::CollectionDataIterator_var iterator;
  DiscoveryStatus const status = m_service->getCollectionData(stored, "", iterator.out());
  if (!CORBA::is_nil(iterator))
    iterator->release();
  // It may have expired since it was listed.
  Remote::Discovery again;
  std::string name;
  return status == DS_NONE_FOUND && findStored(stored.subject, stored.authority, again, name);
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
  Remote::Discovery stored;
  std::string name;
  bool found = false;
  try
  {
    // What each service tells of itself is stored; collections on demand come
    // before all that is.
    found = findStored("*", "service", stored, name) || findStored("*", "*", stored, name);
  }
  catch (CORBA::Exception const&)
  {
    // What the user asked for will meet the same and say so.
  }
  std::string reason;
  std::string const addresses = addressesOf(m_master, reason);
  if (!name.empty() && !addresses.empty())
    overrideConfiguration(configKey("HOST_ADDRESS.").name + name, addresses);
  if (!named || !found)
    return;
  try
  {
    if (onlyRelays(stored))
      complain("the service at " + m_place + " is not the master's: \"" + shown(name) +
               "\" is a client, which lists its master's discoveries but has none of them to show. "
               "Name the master with --master, or leave --master out.");
  }
  catch (CORBA::Exception const&)
  {
    // As above.
  }
}

} // namespace tqdiscoctl
