// Who is connected, and for how long without getting on.

#pragma once

#include <chrono>
#include <mutex>
#include <set>
#include <string>

namespace Web
{

// One connection. What changes of it is Connections' own.
struct Peer
{
  using Steady = std::chrono::steady_clock;

  int fd = -1;
  std::string address;    // as text; empty on a socket of the file system
  bool isTrusted = false; // its certificate has been accepted

  enum Phase
  {
    IDLE, // no request yet, or one whose header is not whole
    ANSWERING,
    ENDLESS // a stream of events
  };
  Phase phase = IDLE;
  Steady::time_point since = Steady::now(); // of the phase
};

// Ends connections that take too long. Any thread.
class Connections
{
public:
  struct Limits
  {
    std::size_t most;
    std::chrono::milliseconds header;  // until a request is whole
    std::chrono::milliseconds request; // until its answer is
  };

  explicit Connections(Limits limits) : m_limits(limits) {}

  void opened(Peer* peer);
  // Before its descriptor is closed.
  void closed(Peer* peer);
  void enter(Peer* peer, Peer::Phase phase);

  // To be called now and then. How many were ended.
  std::size_t endSlow(Peer::Steady::time_point now);

  std::size_t count() const;

private:
  Limits const m_limits;
  mutable std::mutex m_mutex;
  std::set<Peer*> m_peers;
};

} // namespace Web
