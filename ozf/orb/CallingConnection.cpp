#include "ozf/orb/CallingConnection.h"

#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/Deadline.h"
#include "ozf/orb/PlainSocket.h"
#include "ozf/orb/ServerProof.h"
#include "ozf/orb/SlowPeers.h"
#include "ozf/tls/CurrentTls.h"

#include <omniORB4/minorCode.h>
#include <omniORB4/tcpConnection.h>

// Each needs the ones before it.
#include <giopStrand.h>

#include <giopStream.h>

#include <GIOP_C.h>

#include <atomic>
#include <ctime>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "CallingConnection";

// The number that the ORB gave a request.
struct RequestNumber : omni::giopStream
{
  static std::uint32_t of(omni::giopStream const& call)
  {
    CORBA::ULong (omni::giopStream::*const number)() const = &RequestNumber::requestId;
    return (call.*number)();
  }
};

} // namespace

CallingConnection::CallingConnection(omni::giopConnection* inner, omni::giopStrand const& strand,
                                     std::shared_ptr<TlsContext const> context,
                                     std::unique_ptr<TlsChannel> channel)
    : m_inner(inner), m_strand(strand), m_context(std::move(context)), m_channel(std::move(channel))
{
  if (auto const* const tcp = dynamic_cast<omni::tcpConnection const*>(inner))
    m_descriptor = tcp->handle();
}

CallingConnection::~CallingConnection() { m_inner->decrRefCount(true); }

bool CallingConnection::isOutdated() const noexcept { return currentTls() != m_context; }

int CallingConnection::Send(void* data, std::size_t size, omni_time_t const& deadline)
{
  if (m_channel)
    return m_channel->send(data, size, steadyDeadline(deadline));
  if (m_descriptor < 0)
    return m_inner->Send(data, size, deadline);
  int const sent = sendAtOnce(m_descriptor, data, size);
  return sent == 0 ? sendBefore(steadyDeadline(deadline), m_descriptor, data, size) : sent;
}

// One call at a time is made over a connection, and whoever makes it reads the
// answer.
void CallingConnection::expectAnswer() noexcept
{
  if (m_strand.clients.next == &m_strand.clients)
    return;
  auto const& call = static_cast<omni::GIOP_C&>(*m_strand.clients.next);
  m_input.expectAnswerTo(RequestNumber::of(call));
}

int CallingConnection::Recv(void* data, std::size_t size, omni_time_t const& deadline)
{
  if (!m_input.insideMessage())
    expectAnswer();
  int const got =
      m_input.deliver(data, size,
                      [&](void* to, std::size_t room)
                      {
                        if (m_channel)
                          return m_channel->receive(to, room, steadyDeadline(deadline));
                        if (m_descriptor < 0)
                          return m_inner->Recv(to, room, deadline);
                        return receiveBefore(steadyDeadline(deadline), m_descriptor, to, room);
                      });
  if (!m_input.insideMessage())
    m_input.shrink();
  if (got >= 0)
    return got;
  if (m_input.reason() != nullptr)
    logEnd(std::string("refused a message: ") + m_input.reason());
  // What the peer has against this host comes after the handshake.
  else if (m_channel && m_channel->isRefused())
  {
    noteTlsRefusal(m_channel->reason());
    logEnd(m_channel->reason());
  }
  return got;
}

void CallingConnection::logEnd(std::string const& reason)
{
  static std::atomic<std::time_t> lastLine{0}; // one a second: who calls may try again at once
  std::time_t const now = std::time(nullptr);
  if (lastLine.exchange(now) != now)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CallingConnection::Recv",
            "Ended the connection to " << m_inner->peeraddress() << ", " << reason);
}

namespace
{

ServerProof prove(std::shared_ptr<TlsContext const> const& context, omni::giopStrand const& strand,
                  TlsChannel::Clock::time_point deadline)
{
  auto const* const tcp = dynamic_cast<omni::tcpConnection const*>(strand.connection);
  char const* const host = strand.address == nullptr ? nullptr : strand.address->host();
  if (tcp == nullptr || host == nullptr)
    return {};
  try
  {
    return proveServer(context, tcp->handle(), host, deadline);
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "guardReplies",
            "Unable to open a connection to " << host << ": " << exception.what());
    return {};
  }
}

} // namespace

CORBA::Boolean guardReplies(omni::omniInterceptors::clientOpenConnection_T::info_T& info)
{
  omni::giopStrand& strand = info.giop_c.strand();
  std::unique_ptr<TlsChannel> channel;
  auto context = currentTls();
  if (context)
  {
    ServerProof proof = prove(context, strand, steadyDeadline(info.giop_c.getDeadline()));
    channel = std::move(proof.channel);
    // What is rejected by saying so, the ORB takes for a call that may have been done.
    if (!proof.accepted)
    {
      CORBA::ULong ignored = 0;
      CORBA::Boolean hasOtherAddress = false;
      info.giop_c.notifyCommFailure(false, ignored, hasOtherAddress);
      strand.state(omni::giopStrand::DYING);
      omni::giopStream::CommFailure::_raise(omni::TRANSIENT_ConnectFailed, CORBA::COMPLETED_NO,
                                            hasOtherAddress, __FILE__, __LINE__,
                                            "The peer is not proven", &strand);
    }
  }
  strand.connection =
      new CallingConnection(strand.connection, strand, std::move(context), std::move(channel));
  return true;
}

} // namespace Quillon::Tessarine::Ozf
