#include "ozf/orb/Endpoint.h"

#include "ozf/base/LineIfMemory.h"
#include "ozf/base/SystemError.h"
#include "ozf/config/Limits.h"
#include "ozf/log/AuditLog.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/Connection.h"
#include "ozf/orb/ConnectionTable.h"
#include "ozf/orb/Listener.h"
#include "ozf/orb/Liveness.h"
#include "ozf/orb/SocketEnds.h"
#include "ozf/tls/CurrentTls.h"
#include "ozf/tls/Handshakes.h"

#include <omniORB4/tcpConnection.h>
#include <omniORB4/tcpEndpoint.h>

#include <sys/eventfd.h>
#include <sys/resource.h>

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

char const WATCHED_TCP[] = "giop:watched";

namespace
{

constexpr char SOURCE[] = "Endpoint";
constexpr char INNER_TCP[] = "giop:tcp:";

// Descriptors that connections leave to files and to calls going out.
constexpr rlim_t RESERVED_DESCRIPTORS = 64;

// New descriptors get the lowest free number, so one that is close to the
// limit shows that nearly all are in use.
bool descriptorsRunShort(rlim_t limit)
{
  UniqueFd const probe(eventfd(0, EFD_CLOEXEC));
  return !probe.valid() || static_cast<rlim_t>(probe.get()) + RESERVED_DESCRIPTORS > limit;
}

void refuse(Limit& limit, std::string const& address, char const* peer, char const* why)
{
  AuditLog::refuseConnection(address, why);
  if (auto const met = limit.meet(address))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Endpoint::AcceptAndMonitor",
            "Refused a connection from " << peer << ", " << why << *met);
}

// Without memory too: the thread that takes connections in would end, and nobody could
// connect any more.
void logNotTaken(std::exception const& exception) noexcept
{
  lineIfMemory(
      [&exception]
      {
        OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Endpoint::AcceptAndMonitor",
                "Unable to take a connection in: " << exception.what());
      });
}

// "giop:tcp:192.0.2.7:4711", "giop:tcp:[2001:db8::1]:4711"
std::string addressIn(std::string const& text)
{
  auto const open = text.find('[');
  auto const close = text.find(']');
  if (open != std::string::npos && close != std::string::npos && open < close)
  {
    std::string const address = text.substr(open + 1, close - open - 1);
    constexpr std::string_view mapped = "::ffff:";
    return address.starts_with(mapped) && address.find('.') != std::string::npos
               ? address.substr(mapped.size())
               : address;
  }
  auto const port = text.rfind(':');
  if (port == std::string::npos || port == 0)
    return text;
  auto const before = text.rfind(':', port - 1);
  return text.substr(before + 1, port - before - 1);
}

// The socket of an end point or connection of the ORB's.
struct SocketOf : omni::SocketHolder
{
  static int get(omni::SocketHolder const& holder) { return holder.*(&SocketOf::pd_socket); }
};

// Memory that is there now for what the ORB makes for a connection that was taken
// in: without it the ORB gives the end point up.
constexpr std::size_t MEMORY_OF_CONNECTION = 16384;

void requireMemory()
{
  // Not by an expression, which the compiler may leave out.
  ::operator delete(::operator new(MEMORY_OF_CONNECTION));
}

// 0 when there is none.
unsigned short portIn(std::string_view text)
{
  unsigned short port = 0;
  std::string_view const digits = text.substr(text.rfind(':') + 1);
  std::from_chars(digits.data(), digits.data() + digits.size(), port);
  return port;
}

// Whether this process asks whether it answers.
bool isOwnQuestion(std::string const& peer, std::string const& own)
{
  return addressIn(peer) == addressIn(own) && isLivenessQuestion(portIn(peer));
}

// As many connections as one address may have. Hosts behind it may be many, and have
// to leave half of what there may be.
std::size_t connectionsOfAddress(rlim_t descriptors)
{
  std::size_t most = static_cast<std::size_t>(descriptors) / 2;
  Limits& limits = getLimits();
  if (long const all = limits.connections.value(); all != 0)
    most = std::min(most, static_cast<std::size_t>(all + 1) / 2);
  if (long const each = limits.peerConnections.value(); each != 0)
    most = std::min(most, static_cast<std::size_t>(each));
  return most;
}

// Connections of one address may leave half of the descriptors; those that have not
// proven who they are leave half of these, and of one address half of that again.
HandshakeLimits handshakeLimits(rlim_t descriptors)
{
  HandshakeLimits limits;
  limits.all = std::min(limits.all, static_cast<std::size_t>(descriptors / 4));
  limits.ofAddress = std::min(limits.ofAddress, static_cast<std::size_t>(descriptors / 8));
  return limits;
}

// Of the end points that are open.
struct Listening
{
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t open = 0;
  std::size_t waiting = 0; // for connections, or have been
};

Listening& listening()
{
  static auto* const all = new Listening; // an end point may outlast what is static
  return *all;
}

class Endpoint final : public omni::giopEndpoint
{
public:
  // address is kept by the one inside, which is taken.
  Endpoint(std::string address, omni::giopEndpoint* (*make)(char const*))
      : m_address(std::move(address)), m_inner(make(m_address.c_str()))
  {
  }
  ~Endpoint() override { delete m_inner; }

  bool valid() const noexcept { return m_inner != nullptr; }

  char const* type() const override { return m_inner->type(); }
  char const* address() const override { return m_inner->address(); }
  omni::orbServer::EndpointList const* addresses() const override { return m_inner->addresses(); }
  _CORBA_Boolean publish(omni::orbServer::PublishSpecs const& wanted, _CORBA_Boolean all,
                         _CORBA_Boolean allEndPoints,
                         omni::orbServer::EndpointList& published) override
  {
    return m_inner->publish(wanted, all, allEndPoints, published);
  }
  _CORBA_Boolean Bind() override;
  omni::giopConnection* AcceptAndMonitor(omni::giopConnection::notifyReadable_t tell,
                                         void* cookie) override;
  void Poke() override
  {
    if (m_listener)
      m_listener->wake();
  }

  // The ORB asks for nothing afterwards and leaves the end point to itself.
  void Shutdown() override
  {
    m_handshakes.reset();
    if (m_watcher)
      m_watcher->stop();
    std::exchange(m_inner, nullptr)->Shutdown();
    countOut();
    delete this;
  }

private:
  static void handOver(void* self, WatchedConnection& connection);
  void countIn(bool& counted, std::size_t& count);
  void countOut();
  omni::giopConnection* acceptOne() noexcept;
  omni::giopConnection* acceptNext();
  omni::giopConnection* takeIn(UniqueFd& descriptor, std::unique_ptr<TlsChannel> channel);
  omni::giopConnection* wrap(omni::giopConnection* inner, int descriptor,
                             std::unique_ptr<TlsChannel> channel) const;
  static bool isToBeProven(int descriptor, std::string& address);
  void beginHandshake(UniqueFd descriptor, std::string address,
                      std::shared_ptr<TlsContext const> context);

  std::string const m_address;
  omni::giopEndpoint* m_inner;
  std::unique_ptr<Listener> m_listener;
  std::shared_ptr<ConnectionWatcher> m_watcher; // connections may outlast the end point
  std::unique_ptr<Handshakes> m_handshakes;     // from the first one on
  omni::giopConnection::notifyReadable_t m_tell = nullptr;
  void* m_cookie = nullptr;
  bool m_isOpen = false; // as Listening has counted it
  bool m_isWaiting = false;
};

void Endpoint::countIn(bool& counted, std::size_t& count)
{
  std::lock_guard const guard(listening().mutex);
  if (!std::exchange(counted, true))
    ++count;
  listening().changed.notify_all();
}

void Endpoint::countOut()
{
  std::lock_guard const guard(listening().mutex);
  listening().open -= m_isOpen;
  listening().waiting -= m_isWaiting;
}

_CORBA_Boolean Endpoint::Bind()
{
  try
  {
    m_listener = std::make_unique<Listener>();
    m_watcher = std::make_shared<ConnectionWatcher>();
    if (!m_inner->Bind())
      return false;
    countIn(m_isOpen, listening().open);
    return true;
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Endpoint::Bind",
            "Unable to watch the connections of " << m_address << ": " << exception.what());
    return false;
  }
}

// Null when the connection is refused.
omni::giopConnection* Endpoint::wrap(omni::giopConnection* inner, int descriptor,
                                     std::unique_ptr<TlsChannel> channel) const
{
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
    return nullptr;
  Limits& limits = getLimits();
  std::string const address = addressIn(inner->peeraddress());
  if (descriptorsRunShort(limit.rlim_cur))
  {
    refuse(limits.connections, address, inner->peeraddress(), "too many open files");
    return nullptr;
  }
  ConnectionTable& table = ConnectionTable::instance();
  bool const own = isOwnQuestion(inner->peeraddress(), inner->myaddress());
  if (!own && limits.connections.forbids(table.size() + 1))
  {
    refuse(limits.connections, address, inner->peeraddress(), "there are too many");
    return nullptr;
  }
  auto peer = table.add(address, own ? std::numeric_limits<std::size_t>::max()
                                     : connectionsOfAddress(limit.rlim_cur));
  if (peer.empty())
  {
    refuse(limits.peerConnections, address, inner->peeraddress(), "its address has too many");
    return nullptr;
  }
  peer.front().reached = addressIn(inner->myaddress());
  try
  {
    if (channel)
      peer.front().names = channel->peer().names();
    return new Connection(inner, descriptor, std::move(channel), peer, m_watcher,
                          own ? nullptr : requestRateOf(address));
  }
  catch (std::exception const&)
  {
    table.remove(peer);
    throw;
  }
}

// Null when it cannot be had; the descriptor is closed then.
omni::giopConnection* Endpoint::takeIn(UniqueFd& descriptor, std::unique_ptr<TlsChannel> channel)
{
  omni::giopConnection* inner = nullptr;
  omni::giopConnection* taken = nullptr;
  try
  {
    requireMemory();
    // Its second parent is whom it belongs to.
    auto& owner = dynamic_cast<omni::tcpEndpoint&>(*m_inner);
    inner = new omni::tcpConnection(descriptor.get(), &owner);
    taken = wrap(inner, descriptor.release(), std::move(channel));
  }
  catch (std::exception const& exception)
  {
    logNotTaken(exception);
  }
  if (taken == nullptr && inner != nullptr)
    inner->decrRefCount(true);
  return taken;
}

omni::giopConnection* Endpoint::AcceptAndMonitor(omni::giopConnection::notifyReadable_t tell,
                                                 void* cookie)
{
  auto const* const socket = dynamic_cast<omni::tcpEndpoint const*>(m_inner);
  if (socket == nullptr)
    return nullptr;
  if (!m_isWaiting)
    countIn(m_isWaiting, listening().waiting);
  m_tell = tell;
  m_cookie = cookie;
  // The watcher may use what the ORB gave only until this returns.
  m_watcher->allow(handOver, this);
  omni::giopConnection* taken = nullptr;
  while (taken == nullptr && !m_listener->ended())
    taken = acceptOne();
  m_watcher->forbid();
  return taken;
}

// The next that is there to be served; null when it has come to none for now.
omni::giopConnection* Endpoint::acceptOne() noexcept
{
  try
  {
    return acceptNext();
  }
  catch (std::exception const& exception)
  {
    logNotTaken(exception);
    return nullptr;
  }
}

omni::giopConnection* Endpoint::acceptNext()
{
  if (m_handshakes)
    if (auto finished = m_handshakes->takeFinished())
      return takeIn(finished->connection, std::move(finished->channel));
  auto const& socket = dynamic_cast<omni::tcpEndpoint const&>(*m_inner);
  UniqueFd descriptor = m_listener->accept(SocketOf::get(socket), m_inner->address());
  if (!descriptor.valid())
    return nullptr;
  auto context = currentTls();
  std::string address;
  if (!context || !isToBeProven(descriptor.get(), address))
    return takeIn(descriptor, nullptr);
  beginHandshake(std::move(descriptor), std::move(address), std::move(context));
  return nullptr;
}

// All but the process's own question whether it answers. address is the peer's.
bool Endpoint::isToBeProven(int descriptor, std::string& address)
{
  auto const here = ownEnd(descriptor);
  auto const there = peerEnd(descriptor);
  if (!here || !there)
    return true; // gone again
  address = there->address;
  return there->address != here->address || !isLivenessQuestion(there->port);
}

void Endpoint::beginHandshake(UniqueFd descriptor, std::string address,
                              std::shared_ptr<TlsContext const> context)
{
  try
  {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || descriptorsRunShort(limit.rlim_cur))
    {
      refuse(getLimits().connections, address, address.c_str(), "too many open files");
      return;
    }
    if (!m_handshakes)
      m_handshakes = std::make_unique<Handshakes>([this] { m_listener->interrupt(); },
                                                  handshakeLimits(limit.rlim_cur));
    m_handshakes->begin(std::move(descriptor), std::move(address), std::move(context));
  }
  catch (std::exception const& exception)
  {
    logNotTaken(exception);
  }
}

void Endpoint::handOver(void* self, WatchedConnection& connection)
{
  auto const* const endPoint = static_cast<Endpoint*>(self);
  endPoint->m_tell(endPoint->m_cookie, &static_cast<Connection&>(connection));
}

class Transport final : public omni::giopTransportImpl
{
public:
  Transport() : giopTransportImpl(WATCHED_TCP) {}

  omni::giopEndpoint* toEndpoint(char const* parameter) override
  {
    if (isValid(parameter) == 0)
      return nullptr;
    return new Endpoint(INNER_TCP + std::string(parameter), omni::giopEndpoint::str2Endpoint);
  }
  _CORBA_Boolean isValid(char const* parameter) override
  {
    return omni::giopEndpoint::strIsValidEndpoint((INNER_TCP + std::string(parameter)).c_str());
  }
  // Neither is asked for: what is published and called is "giop:tcp".
  omni::giopAddress* toAddress(char const*) override { return nullptr; }
  _CORBA_Boolean addToIOR(char const*, omni::IORPublish*) override { return false; }
  omnivector<char const*> const* getInterfaceAddress() override { return nullptr; }
};

} // namespace

bool allListen(std::chrono::milliseconds limit)
{
  Listening& all = listening();
  std::unique_lock lock(all.mutex);
  return all.changed.wait_for(lock, limit, [&all] { return all.waiting >= all.open; });
}

void registerWatchedTransport() { [[maybe_unused]] static auto* const transport = new Transport; }

} // namespace Quillon::Tessarine::Ozf
