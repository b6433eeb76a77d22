// Connections that are no good for another call.

#pragma once

#include <omniORB4/CORBA.h>
#include <omniORB4/omniInterceptors.h>

namespace Quillon::Tessarine::Ozf
{

// To be called before each request is sent. A connection that the peer has
// closed since its last reply is given up, and the ORB sends the request on
// another: nothing of it has left, so it cannot be done twice. So is a connection
// that was opened before TLS was set up anew: the other side proves itself again, by
// what is believed now.
//
// The ORB itself finds out too late. What it sends meets a reset; that reset is
// the first thing it sees when it waits for the reply, before the peer's message
// that the connection closes, and so the call fails with COMM_FAILURE, completed
// MAYBE.
CORBA::Boolean leaveSpentConnection(omni::omniInterceptors::clientSendRequest_T::info_T& info);

} // namespace Quillon::Tessarine::Ozf
