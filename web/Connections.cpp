#include "web/Connections.h"

#include <sys/socket.h>

namespace Web
{

void Connections::opened(Peer* peer)
{
  std::lock_guard const guard(m_mutex);
  m_peers.insert(peer);
}

void Connections::closed(Peer* peer)
{
  std::lock_guard const guard(m_mutex);
  m_peers.erase(peer);
}

void Connections::enter(Peer* peer, Peer::Phase phase)
{
  std::lock_guard const guard(m_mutex);
  peer->phase = phase;
  peer->since = Peer::Steady::now();
}

// Shutting a connection down has whoever serves it close it.
std::size_t Connections::endSlow(Peer::Steady::time_point now)
{
  constexpr std::chrono::seconds SHORT(1);
  std::lock_guard const guard(m_mutex);
  bool const crowded = m_peers.size() > m_limits.most / 4 * 3;
  std::size_t ended = 0;
  for (Peer* const peer : m_peers)
  {
    auto const age = now - peer->since;
    bool const slow = peer->phase == Peer::IDLE
                          ? age > (crowded ? SHORT : m_limits.header)
                          : peer->phase == Peer::ANSWERING && age > m_limits.request;
    if (slow && shutdown(peer->fd, SHUT_RDWR) == 0)
      ++ended;
  }
  return ended;
}

std::size_t Connections::count() const
{
  std::lock_guard const guard(m_mutex);
  return m_peers.size();
}

} // namespace Web
