#include "discovery/CallOwner.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/Corba.h"
#include "ozf/orb/Peer.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

CallOwner::CallOwner()
{
  if (Peer const* const peer = currentPeer())
  {
    m_address = peer->address;
    m_reached = peer->reached;
  }
}

bool CallOwner::accepts(Peer const& peer)
{
  std::lock_guard const guard(m_mutex);
  if (!m_used && !m_address.empty() && peer.address != m_address && peer.reached != m_reached)
    m_otherAddress = peer.address;
  bool const accepted = peer.address == m_address || peer.address == m_otherAddress;
  m_used = m_used || accepted;
  return accepted;
}

void CallOwner::require(char const* operation)
{
  Peer const* const peer = currentPeer();
  if (peer == nullptr || accepts(*peer))
    return;
  OZF_LOG(getOzfLogger(), 1, "DiscoveryService_i", operation,
          "Refused a call of " << peer->address << ": the object belongs to "
                               << (m_address.empty() ? "this service" : m_address.c_str()));
  auditRefusal({operation}, "the object belongs to " +
                                (m_address.empty() ? std::string("this service") : m_address));
  throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
