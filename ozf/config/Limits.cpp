#include "ozf/config/Limits.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf
{

bool Limit::forbids(std::uint64_t number) const noexcept
{
  long const most = value();
  return most != 0 && number > static_cast<std::uint64_t>(most);
}

std::optional<std::string> Limit::meet(std::string const& peer, Clock::time_point now)
{
  std::lock_guard const guard(m_mutex);
  ++m_times;
  m_lastPeer = peer;
  m_lastTime = OzfObjTime::now();
  if (m_told && now - m_toldTime < (peer == m_toldPeer ? SAME_PEER : OTHER_PEER))
    return std::nullopt;
  std::uint64_t const others = m_times - m_toldTimes - 1;
  m_told = true;
  m_toldPeer = peer;
  m_toldTime = now;
  m_toldTimes = m_times;
  return others == 0 ? std::string()
                     : "; " + std::string(name()) + " was met " + std::to_string(others) +
                           (others == 1 ? " time" : " times") + " since the last such line";
}

std::optional<MetLimit> Limit::met() const
{
  std::lock_guard const guard(m_mutex);
  if (m_times == 0)
    return std::nullopt;
  return MetLimit{name(), value(), m_times, m_lastPeer, m_lastTime};
}

void Limit::configure(Configuration const& configuration)
{
  long value = m_value;
  configuration.getInteger(m_key, value);
  m_value = value;
}

Limits::Limits()
    : connections(configKey("LIMIT_CONNECTIONS")),
      peerConnections(configKey("LIMIT_PEER_CONNECTIONS")),
      peerCalls(configKey("LIMIT_PEER_CALLS")),
      peerRequests(configKey("LIMIT_PEER_REQUESTS")),
      requestWait(configKey("LIMIT_REQUEST_WAIT")),
      iterators(configKey("LIMIT_ITERATORS")),
      peerIterators(configKey("LIMIT_PEER_ITERATORS")),
      writers(configKey("LIMIT_WRITERS")),
      peerWriters(configKey("LIMIT_PEER_WRITERS")),
      registrations(configKey("LIMIT_REGISTRATIONS")),
      peerRegistrations(configKey("LIMIT_PEER_REGISTRATIONS")),
      peerDayBytes(configKey("LIMIT_PEER_DAY_BYTES")),
      payload(configKey("LIMIT_PAYLOAD")),
      answers(configKey("LIMIT_ANSWERS"))
{
}

std::vector<Limit*> Limits::all()
{
  return {&connections,       &peerConnections, &peerCalls, &peerRequests, &requestWait,
          &iterators,         &peerIterators,   &writers,   &peerWriters,  &registrations,
          &peerRegistrations, &peerDayBytes,    &payload,   &answers};
}

void Limits::configure(Configuration const& configuration)
{
  for (Limit* const limit : all())
    limit->configure(configuration);
}

std::vector<MetLimit> Limits::met()
{
  std::vector<MetLimit> result;
  for (Limit const* const limit : all())
    if (auto met = limit->met())
      result.push_back(std::move(*met));
  return result;
}

Limits& getLimits()
{
  static auto* const limits = new Limits;
  return *limits;
}

PeerCounts::Place::Place(PeerCounts& counts, std::string const& peer)
    : m_counts(counts), m_peer(peer)
{
  std::lock_guard const guard(m_counts.m_mutex);
  m_number = ++m_counts.m_counts[m_peer];
}

PeerCounts::Place::~Place()
{
  std::lock_guard const guard(m_counts.m_mutex);
  auto const count = m_counts.m_counts.find(m_peer);
  if (--count->second == 0)
    m_counts.m_counts.erase(count);
}

std::uint64_t PeerCounts::of(std::string const& peer) const
{
  std::lock_guard const guard(m_mutex);
  auto const count = m_counts.find(peer);
  return count == m_counts.end() ? 0 : count->second;
}

} // namespace Quillon::Tessarine::Ozf
