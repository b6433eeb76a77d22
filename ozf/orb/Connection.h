// A connection that a peer has opened, as the ORB sees it.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/orb/CallRights.h"
#include "ozf/orb/ConnectionWatcher.h"
#include "ozf/orb/GuardedInput.h"
#include "ozf/tls/TlsChannel.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/giopEndpoint.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace Quillon::Tessarine::Ozf
{

// Wraps one of the ORB's over TCP. The ORB owns it by its count; destroying it
// destroys the one inside. Between two requests it belongs to the watcher, and
// from there on to the ORB's thread until that asks to have it watched again.
class OZF_EXPORT Connection final : public omni::giopConnection, public WatchedConnection
{
public:
  // peer is what the table of connections gave for it, and descriptor the
  // socket of inner, over which the channel goes when there is one; rate is null
  // for one that may make any number of requests. Throws what
  // ConnectionWatcher::add throws; then inner is still the caller's.
  Connection(omni::giopConnection* inner, int descriptor, std::unique_ptr<TlsChannel> channel,
             std::list<Peer> peer, std::shared_ptr<ConnectionWatcher> watcher,
             std::shared_ptr<RequestRate> rate = nullptr);

  Peer const& peer() const noexcept override { return m_peer.front(); }

  // Whether what holds of TLS now, which may have been set up anew since, lets the
  // peer call over this connection. Otherwise, and when there is no memory to find
  // out, the connection has been ended; the log tells why. For who serves it.
  bool isStillTaken() noexcept;

  // Whether bytes were delivered to the ORB since the last question.
  bool takeDelivered() noexcept { return m_delivered.exchange(false); }

  // Returns when the request in hand may be served. Raises TRANSIENT when its address
  // has made too many.
  void requireTurn(char const* operation) const;

  // Refuses the call, whose thread this is, unless the peer may make it.
  void requireRight(char const* operation)
  {
    Ozf::requireRight(peer(), m_descriptor, operation, m_rights);
  }

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

  int descriptor() const noexcept override { return m_descriptor; }
  Arrived readAvailable() override;
  Arrived arrived() noexcept override;
  std::uint64_t received() const noexcept override { return m_received; }
  void abandon() noexcept override;
  bool holdsBytes() const noexcept override { return m_channel && m_channel->holdsBytes(); }
  RequestRate* rate() const noexcept override { return m_rate.get(); }
  void setTooMany(bool tooMany) noexcept override { m_tooMany = tooMany; }

  bool isPeerTaken(TlsContext const& context) const;
  Arrived look() noexcept;
  int receive(void* data, std::size_t size, omni_time_t const& deadline);
  int receiveNow(void* data, std::size_t size) noexcept;
  void keepFromWaiting() noexcept;

  omni::giopConnection* const m_inner;
  int const m_descriptor;
  std::unique_ptr<TlsChannel> const m_channel; // null: plain
  std::shared_ptr<TlsContext const> m_judge;   // who has found the peer to be believed
  std::list<Peer> m_peer;                      // one, as the table wants it
  std::shared_ptr<ConnectionWatcher> const m_watcher;
  std::shared_ptr<RequestRate> const m_rate; // null: any number
  std::atomic<bool> m_tooMany{false};
  std::atomic<std::uint64_t> m_received{0};
  std::atomic<bool> m_delivered{false};
  std::uint64_t m_rights = 0;           // as requireRight keeps them
  omni::giopStrand* m_strand = nullptr; // whose connection this is, once it is used

  // Two threads may be there only while the ORB goes down: it sends one after
  // every connection to see that it has been closed.
  std::mutex m_mutex;
  GuardedInput m_input{MessageRules::REQUESTS};
  bool m_ended = false;
  bool m_large = false; // the ORB reads a large request
};

} // namespace Quillon::Tessarine::Ozf
