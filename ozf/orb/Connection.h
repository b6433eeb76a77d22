// A connection of the ORB's, wrapped.

#pragma once

#include "ozf/orb/Peer.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/giopEndpoint.h>

#include <functional>
#include <list>

namespace Quillon::Tessarine::Ozf
{

// One that a peer has opened. The ORB owns it by its count; destroying it
// destroys the one inside.
class Connection final : public omni::giopConnection
{
public:
  // Told when the connection ends, with the one inside.
  using Ended = std::function<void(omni::giopConnection*)>;

  Connection(omni::giopConnection* inner, Ended ended);

  Peer const& peer() const noexcept { return m_peer.front(); }
  omni::giopConnection* inner() const noexcept { return m_inner; }

  int Send(void* data, std::size_t size, omni_time_t const& deadline) override;
  int Recv(void* data, std::size_t size, omni_time_t const& deadline) override;
  void Shutdown() override;
  char const* myaddress() override;
  char const* peeraddress() override;
  char const* peeridentity() override;
  void* peerdetails() override;
  _CORBA_Boolean gatekeeperCheckSpecific(omni::giopStrand* strand) override;
  void setSelectable(int now, _CORBA_Boolean dataInBuffer) override;
  void clearSelectable() override;
  _CORBA_Boolean isSelectable() override;
  _CORBA_Boolean Peek() override;

private:
  ~Connection() override;

  omni::giopConnection* const m_inner;
  Ended const m_ended;
  std::list<Peer> m_peer; // one, as the table wants it
};

} // namespace Quillon::Tessarine::Ozf
