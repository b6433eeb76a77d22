// A connection that this process has opened, as the ORB sees it.

#pragma once

#include "ozf/orb/GuardedInput.h"
#include "ozf/tls/TlsChannel.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/giopEndpoint.h>
#include <omniORB4/omniInterceptors.h>

#include <memory>

namespace Quillon::Tessarine::Ozf
{

// Wraps one of the ORB's, so that it sees only answers that follow the rules.
// The ORB owns it by its count; destroying it lets go of the one inside.
class CallingConnection final : public omni::giopConnection
{
public:
  // Takes the caller's count of inner. strand is whose connection this is, and
  // lives as long. The channel, when there is one, goes over inner's socket. context
  // is what held of TLS when it was opened; null when TLS was off.
  CallingConnection(omni::giopConnection* inner, omni::giopStrand const& strand,
                    std::shared_ptr<TlsContext const> context, std::unique_ptr<TlsChannel> channel);

  omni::giopConnection const* inner() const noexcept { return m_inner; }

  // Whether something else holds of TLS now than when it was opened.
  bool isOutdated() const noexcept;

  int Send(void* data, std::size_t size, omni_time_t const& deadline) override;
  int Recv(void* data, std::size_t size, omni_time_t const& deadline) override;
  void Shutdown() override { m_inner->Shutdown(); }
  char const* myaddress() override { return m_inner->myaddress(); }
  char const* peeraddress() override { return m_inner->peeraddress(); }
  char const* peeridentity() override { return m_inner->peeridentity(); }
  void* peerdetails() override { return m_inner->peerdetails(); }
  void setSelectable(int now, _CORBA_Boolean dataInBuffer) override
  {
    m_inner->setSelectable(now, dataInBuffer);
  }
  void clearSelectable() override { m_inner->clearSelectable(); }
  _CORBA_Boolean isSelectable() override { return m_inner->isSelectable(); }
  _CORBA_Boolean Peek() override { return m_inner->Peek(); }

private:
  ~CallingConnection() override;

  void expectAnswer() noexcept;
  void logEnd(std::string const& reason);

  omni::giopConnection* const m_inner;
  omni::giopStrand const& m_strand;
  std::shared_ptr<TlsContext const> const m_context;
  std::unique_ptr<TlsChannel> const m_channel; // null: plain
  int m_descriptor = -1;                       // -1 when it is not known
  GuardedInput m_input{MessageRules::REPLIES};
};

// To be called for each connection that the ORB opens: has the peer prove who it is
// where TLS is on, and wraps the connection.
CORBA::Boolean guardReplies(omni::omniInterceptors::clientOpenConnection_T::info_T& info);

} // namespace Quillon::Tessarine::Ozf
