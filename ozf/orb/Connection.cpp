#include "ozf/orb/Connection.h"

#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/ConnectionTable.h"
#include "ozf/orb/Deadline.h"
#include "ozf/orb/PlainSocket.h"
#include "ozf/orb/SlowPeers.h"
#include "ozf/tls/CurrentTls.h"
#include "ozf/tls/RareLines.h"

// Each needs the ones before it.
#include <giopStrand.h>

#include <giopStream.h>

#include <GIOP_S.h>

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "Connection";

// For so long the thread that has served a request waits for the next one: who
// calls again and again is answered without a change of threads.
constexpr int NEXT_REQUEST_MILLISECONDS = 50;

void logRefusal(Peer const& peer, char const* reason)
{
  static std::atomic<std::time_t> lastLine{0}; // one a second: it is likely to be a flood
  std::time_t const now = std::time(nullptr);
  if (lastLine.exchange(now) != now)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Connection::Recv",
            "Ended a connection from " << peer.address << ", refused a message: " << reason);
}

// Which of the requests of a connection is being read.
struct RequestReader : omni::giopStream
{
  static bool reads(omni::giopStream const& request)
  {
    return request.*(&RequestReader::pd_rdlocked);
  }
};

} // namespace

Connection::Connection(omni::giopConnection* inner, int descriptor,
                       std::unique_ptr<TlsChannel> channel, std::list<Peer> peer,
                       std::shared_ptr<ConnectionWatcher> watcher,
                       std::shared_ptr<RequestRate> rate)
    : m_inner(inner),
      m_descriptor(descriptor),
      m_channel(std::move(channel)),
      m_judge(m_channel ? m_channel->context() : nullptr),
      m_peer(std::move(peer)),
      m_watcher(std::move(watcher)),
      m_rate(std::move(rate))
{
  m_watcher->add(*this);
}

Connection::~Connection()
{
  m_watcher->remove(*this);
  ConnectionTable::instance().remove(m_peer);
  m_inner->decrRefCount(true);
}

void Connection::requireTurn(char const* operation) const
{
  if (!m_tooMany)
    return;
  auditRefusal(&peer(), {operation}, "too many requests a second");
  throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
}

int Connection::Send(void* data, std::size_t size, omni_time_t const& deadline)
{
  int const sent =
      m_channel ? m_channel->sendNow(data, size) : sendAtOnce(m_descriptor, data, size);
  if (sent != 0 || isFarewell(data, size))
    return sent;
  try
  {
    WaitForPeer const wait(*this);
    return m_channel ? m_channel->send(data, size, steadyDeadline(deadline))
                     : sendBefore(steadyDeadline(deadline), m_descriptor, data, size);
  }
  catch (std::bad_alloc const&)
  {
    return -1;
  }
}

int Connection::Recv(void* data, std::size_t size, omni_time_t const& deadline)
{
  std::lock_guard guard(m_mutex);
  int const got = m_input.deliver(data, size,
                                  [&](void* to, std::size_t room)
                                  {
                                    int const read = receive(to, room, deadline);
                                    if (read > 0)
                                      m_received += static_cast<std::uint64_t>(read);
                                    return read;
                                  });
  if (got > 0)
    m_delivered = true;
  if (got < 0 && m_input.reason() != nullptr)
    logRefusal(peer(), m_input.reason());
  if (m_large && (got <= 0 || !m_input.insideMessage()))
  {
    m_large = false;
    m_watcher->largeIsRead(*this);
  }
  return got;
}

int Connection::receive(void* data, std::size_t size, omni_time_t const& deadline)
{
  return m_channel ? m_channel->receive(data, size, steadyDeadline(deadline))
                   : receiveBefore(steadyDeadline(deadline), m_descriptor, data, size);
}

// A number of bytes, 0 when there is none now, negative at the end.
int Connection::receiveNow(void* data, std::size_t size) noexcept
{
  if (m_channel)
    return m_channel->receiveNow(data, size);
  auto const read = recv(m_descriptor, data, size, MSG_DONTWAIT);
  if (read > 0)
    return static_cast<int>(read);
  return read < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : -1;
}

bool Connection::isPeerTaken(TlsContext const& context) const
{
  std::string refusal;
  if (m_channel)
    refusal = m_channel->refusalNow(context);
  else if (context.settings().mode == TlsMode::ONLY)
    refusal = "it does not speak TLS, which TLS = only asks for";
  if (!refusal.empty())
    auditRefusal(&peer(), {"connect"}, refusal);
  if (!refusal.empty() && refusalLines().admits(peer().address, refusal))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Connection::isStillTaken",
            "Ended a connection from " << peer().address << " before its next call: " << refusal);
  return refusal.empty();
}

// The peer is told that the connection ends, so that it makes the call over another,
// for which it proves who it is.
bool Connection::isStillTaken() noexcept
{
  auto const context = currentTls();
  if (!context ||
      (context == m_judge && (!m_channel || m_channel->peer().end() > std::time(nullptr))))
    return true;
  try
  {
    if (isPeerTaken(*context))
    {
      m_judge = context;
      return true;
    }
    auto farewell = FAREWELL;
    Send(farewell.data(), farewell.size(), omni_time_t());
  }
  catch (std::exception const&)
  {
  }
  m_inner->Shutdown();
  return false;
}

void Connection::Shutdown() { m_inner->Shutdown(); }

void Connection::abandon() noexcept { m_inner->Shutdown(); }

char const* Connection::myaddress() { return m_inner->myaddress(); }

char const* Connection::peeraddress() { return m_inner->peeraddress(); }

char const* Connection::peeridentity() { return m_inner->peeridentity(); }

void* Connection::peerdetails() { return m_inner->peerdetails(); }

_CORBA_Boolean Connection::gatekeeperCheckSpecific(omni::giopStrand* strand)
{
  m_strand = strand;
  return m_inner->gatekeeperCheckSpecific(strand);
}

// When a connection ends, the ORB frees what it keeps for a request unless that waits
// for the servant. It lets a request wait as soon as its arguments have been read, or
// are not wanted, and then reads what is left of it; should that fail, nobody would
// ever free it. So the request waits from the call on (ozf/orb/CorbaProcess.cpp).
void Connection::keepFromWaiting() noexcept
{
  if (m_strand == nullptr)
    return;
  omni_tracedmutex_lock const guard(*omni::omniTransportLock);
  omni::giopStreamList const& all = m_strand->servers;
  for (auto* each = all.next; each != &all; each = each->next)
  {
    auto& request = static_cast<omni::GIOP_S&>(*each);
    if (RequestReader::reads(request) && request.state() == omni::IOP_S::WaitingForReply)
      request.state(omni::IOP_S::RequestIsBeingProcessed);
  }
}

// The ORB asks with 0 before a call already, so that the connection's next
// request may be read meanwhile; one at a time is served here.
void Connection::setSelectable(int now, _CORBA_Boolean)
{
  if (now == 0)
  {
    keepFromWaiting();
    return;
  }
  {
    std::lock_guard guard(m_mutex);
    m_input.shrink();
  }
  m_watcher->watch(*this);
}

// Watching ends by itself when the ORB's thread gets the connection.
void Connection::clearSelectable() {}

_CORBA_Boolean Connection::isSelectable() { return true; }

_CORBA_Boolean Connection::Peek()
{
  Arrived next = arrived();
  if (next == NOTHING || next == PART)
  {
    pollfd wait{m_descriptor, POLLIN | POLLRDHUP, 0};
    if (!holdsBytes() && poll(&wait, 1, NEXT_REQUEST_MILLISECONDS) != 1)
      return false;
    try
    {
      next = readAvailable();
    }
    catch (std::bad_alloc const&)
    {
      return false;
    }
  }
  if (next == NOTHING || next == PART)
    return false;
  // What comes before its turn waits where it costs no thread.
  bool const isTurn =
      next == ENDED || (next == LARGE ? m_watcher->admitLarge(*this)
                                      : !m_rate || m_rate->admits(RequestRate::Clock::now()));
  if (isTurn)
    m_tooMany = false;
  return isTurn;
}

WatchedConnection::Arrived Connection::look() noexcept
{
  if (m_input.insideMessage())
    return READY;
  switch (m_input.holding())
  {
  case GuardedInput::NOTHING:
    return m_ended ? ENDED : NOTHING;
  case GuardedInput::PART:
    return m_ended ? ENDED : PART;
  case GuardedInput::LARGE:
    m_large = true;
    return LARGE;
  default:
    return READY;
  }
}

WatchedConnection::Arrived Connection::arrived() noexcept
{
  std::lock_guard guard(m_mutex);
  return look();
}

WatchedConnection::Arrived Connection::readAvailable()
{
  std::lock_guard guard(m_mutex);
  Arrived const before = look();
  if (before != NOTHING && before != PART)
    return before;
  Arrived now = before;
  do
  {
    m_input.fill(
        [this](void* to, std::size_t room)
        {
          int const read = receiveNow(to, room);
          if (read > 0)
            m_received += static_cast<std::uint64_t>(read);
          else if (read < 0)
            m_ended = true;
          return read;
        });
    now = look();
  } while ((now == NOTHING || now == PART) && holdsBytes()); // of which the socket tells nothing
  return now;
}

} // namespace Quillon::Tessarine::Ozf
