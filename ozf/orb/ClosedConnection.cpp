#include "ozf/orb/ClosedConnection.h"

#include "ozf/orb/CallingConnection.h"

#include <omniORB4/minorCode.h>
#include <omniORB4/tcpConnection.h>

// Each needs the ones before it.
#include <giopStrand.h>

#include <giopStream.h>

#include <GIOP_C.h>

#include <poll.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

bool isSpent(omni::giopConnection const* connection)
{
  auto const* const calling = dynamic_cast<CallingConnection const*>(connection);
  if (calling != nullptr && calling->isOutdated())
    return true;
  auto const* const tcp =
      dynamic_cast<omni::tcpConnection const*>(calling == nullptr ? connection : calling->inner());
  if (tcp == nullptr)
    return false;
  pollfd wait{tcp->handle(), POLLRDHUP, 0};
  return poll(&wait, 1, 0) == 1;
}

} // namespace

CORBA::Boolean leaveSpentConnection(omni::omniInterceptors::clientSendRequest_T::info_T& info)
{
  omni::giopStrand& strand = info.giop_c.strand();
  // A new one that is closed already was refused; trying again would not end.
  if (strand.first_use || !isSpent(strand.connection))
    return true;
  strand.state(omni::giopStrand::DYING);
  omni::giopStream::CommFailure::_raise(omni::TRANSIENT_ConnectionClosed, CORBA::COMPLETED_NO, true,
                                        __FILE__, __LINE__,
                                        "Closed by the peer while idle, or outdated", &strand);
  return true;
}

} // namespace Quillon::Tessarine::Ozf
