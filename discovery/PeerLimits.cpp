#include "discovery/PeerLimits.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/orb/Corba.h"
#include "ozf/orb/Peer.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscoveryService_i";
constexpr std::chrono::hours DAY(24);

// Never destroyed: what is counted may outlive the statics of the process.
PeerCounts& iterators()
{
  static auto* const counts = new PeerCounts;
  return *counts;
}

PeerCounts& registrations()
{
  static auto* const counts = new PeerCounts;
  return *counts;
}

PeerPlace takePlace(PeerCounts& counts)
{
  Peer const* const peer = currentPeer();
  return peer == nullptr ? PeerPlace()
                         : std::make_unique<PeerCounts::Place const>(counts, peer->address);
}

} // namespace

PeerPlace takeIteratorPlace(char const* operation, AuditedCall const& call)
{
  Limit& limit = getLimits().peerIterators;
  auto place = takePlace(iterators());
  if (place == nullptr || !limit.forbids(place->number()))
    return place;
  if (auto const met = limit.meet(place->peer()))
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
            "Refused a call of " << place->peer() << ": it has " << place->number() - 1
                                 << " iterators open already" << *met);
  auditRefusal(call, "too many iterators are open already");
  throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
}

PeerPlace takeRegistrationPlace() { return takePlace(registrations()); }

// Under m_mutex.
void DayBytes::forgetOld()
{
  auto const now = m_clock();
  while (!m_ends.empty() && (m_ends.begin()->first <= now || m_days.size() > MOST_PEERS))
  {
    m_days.erase(m_ends.begin()->second);
    m_ends.erase(m_ends.begin());
  }
}

bool DayBytes::add(std::string const& peer, std::uint64_t bytes)
{
  Limit const& limit = getLimits().peerDayBytes;
  if (limit.value() == 0)
    return true;
  std::lock_guard const guard(m_mutex);
  forgetOld();
  auto const [day, isNew] = m_days.try_emplace(peer);
  if (isNew)
  {
    day->second.end = m_clock() + DAY;
    m_ends.emplace(day->second.end, day);
  }
  if (limit.forbids(day->second.bytes + bytes))
    return false;
  day->second.bytes += bytes;
  return true;
}

void DayBytes::setClock(Clock clock)
{
  std::lock_guard const guard(m_mutex);
  m_clock = clock ? std::move(clock) : Clock(&std::chrono::steady_clock::now);
}

DayBytes& getDayBytes()
{
  static auto* const instance = new DayBytes;
  return *instance;
}

void requireDayBytes(char const* operation, AuditedCall const& call, std::uint64_t bytes)
{
  Peer const* const peer = currentPeer();
  if (peer == nullptr || getDayBytes().add(peer->address, bytes))
    return;
  Limit& limit = getLimits().peerDayBytes;
  if (auto const met = limit.meet(peer->address))
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
            "Refused a call of " << peer->address << ": it may store " << limit.value()
                                 << " bytes a day" << *met);
  auditRefusal(call, "too much was stored within a day");
  throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
