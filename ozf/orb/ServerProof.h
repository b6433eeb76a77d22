// The beginning of a connection that this process opens while TLS is on.

#pragma once

#include "ozf/tls/TlsChannel.h"

#include <chrono>
#include <memory>
#include <string>

namespace Quillon::Tessarine::Ozf
{

struct ServerProof
{
  bool accepted = false;
  std::unique_ptr<TlsChannel> channel; // null where a plain connection is accepted
  std::string reason;                  // why it is not
};

// Shakes hands over the socket, which has just been connected to host, as the
// reference that is called has it. Where the host does not speak TLS and the
// context takes that, the socket is connected anew, under its old number, and goes
// on plain. What fails, and what goes on plain, is told in the log. Blocks until the
// deadline at worst, three seconds at most, and for the resolver (HostProof.h).
ServerProof proveServer(std::shared_ptr<TlsContext const> const& context, int descriptor,
                        std::string const& host, TlsChannel::Clock::time_point deadline);

} // namespace Quillon::Tessarine::Ozf
