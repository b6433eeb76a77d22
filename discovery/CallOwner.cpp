#include "discovery/CallOwner.h"

#include "ozf/orb/CallRights.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

CallOwner::CallOwner()
{
  if (Peer const* const peer = currentPeer())
    m_peer = *peer;
}

bool CallOwner::accepts(Peer const& peer)
{
  if (!m_peer.names.empty())
    return peer.names == m_peer.names;
  std::lock_guard const guard(m_mutex);
  if (!m_used && !m_peer.address.empty() && peer.address != m_peer.address &&
      peer.reached != m_peer.reached)
    m_otherAddress = peer.address;
  bool const accepted = peer.address == m_peer.address || peer.address == m_otherAddress;
  m_used = m_used || accepted;
  return accepted;
}

void CallOwner::require(char const* operation)
{
  Peer const* const peer = currentPeer();
  if (peer != nullptr && !accepts(*peer))
    refuseCall(*peer, operation, {operation}, "the object belongs to " + shownPeer(m_peer));
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
