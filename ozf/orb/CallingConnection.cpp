#include "ozf/orb/CallingConnection.h"

#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/SlowPeers.h"

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

CallingConnection::CallingConnection(omni::giopConnection* inner, omni::giopStrand const& strand)
    : m_inner(inner), m_strand(strand)
{
  if (auto const* const tcp = dynamic_cast<omni::tcpConnection const*>(inner))
    m_descriptor = tcp->handle();
}

CallingConnection::~CallingConnection() { m_inner->decrRefCount(true); }

int CallingConnection::Send(void* data, std::size_t size, omni_time_t const& deadline)
{
  int const sent = m_descriptor < 0 ? 0 : sendAtOnce(m_descriptor, data, size);
  return sent == 0 ? m_inner->Send(data, size, deadline) : sent;
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
  int const got = m_input.deliver(
      data, size, [&](void* to, std::size_t room) { return m_inner->Recv(to, room, deadline); });
  if (!m_input.insideMessage())
    m_input.shrink();
  if (got >= 0 || m_input.reason() == nullptr)
    return got;
  static std::atomic<std::time_t> lastLine{0}; // one a second: who calls may try again at once
  std::time_t const now = std::time(nullptr);
  if (lastLine.exchange(now) != now)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CallingConnection::Recv",
            "Ended the connection to " << m_inner->peeraddress()
                                       << ", refused a message: " << m_input.reason());
  return got;
}

CORBA::Boolean guardReplies(omni::omniInterceptors::clientOpenConnection_T::info_T& info)
{
  omni::giopStrand& strand = info.giop_c.strand();
  strand.connection = new CallingConnection(strand.connection, strand);
  return true;
}

} // namespace Quillon::Tessarine::Ozf
