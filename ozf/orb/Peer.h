// Who calls, over which connection, and when that connection has gone.
//
// What is kept for a peer can so be counted by its address, be withheld from
// others, and be given back when the connection that it was made over is gone.

#pragma once

#include "ozf/base/Export.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// Counts the connections that this process has taken in; no number comes twice.
// 0 is none.
using ConnectionNumber = std::uint64_t;

struct Peer
{
  std::string address; // numeric, without the port: "192.0.2.7", "2001:db8::1"
  ConnectionNumber connection = 0;
  std::string reached; // the address of this host that it calls, in the same form
  // What its certificate is for, as the authority wrote it; empty without TLS.
  std::vector<std::string> names{};
};

// The peer whose call the calling thread serves. Null outside of calls from the
// network, so also within a call that the process makes to itself. It stays as
// it is until the call ends; whoever wants it for longer copies it.
OZF_EXPORT Peer const* currentPeer() noexcept;

// Whether the connection still stands. False for a number never given. A
// connection whose peer has gone counts as open until the call that it carries
// has ended. Any thread; does not block.
OZF_EXPORT bool isConnectionOpen(ConnectionNumber connection) noexcept;

// Tells of every connection that goes while the object lives.
class OZF_EXPORT ConnectionObserver
{
public:
  using Gone = std::function<void(Peer const&)>;

  // gone is called on a thread of the ORB wrapper's own, soon after the
  // connection went and never for two connections at once; isConnectionOpen is
  // false for it by then. It may take locks and write log lines; it must not
  // destroy an observer nor wait for calls or for the end of the ORB, and it
  // should be brief: the others wait for it.
  // What it throws is logged at level 1 and goes no further.
  explicit ConnectionObserver(Gone gone);

  // Waits for a call of gone that is in progress; there is none afterwards.
  ~ConnectionObserver();
  ConnectionObserver(ConnectionObserver const&) = delete;
  ConnectionObserver& operator=(ConnectionObserver const&) = delete;

private:
  std::shared_ptr<Gone> m_gone;
};

} // namespace Quillon::Tessarine::Ozf
