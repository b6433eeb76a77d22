// TLS over a connected socket.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/tls/Certificate.h"
#include "ozf/tls/TlsContext.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

using SSL = struct ssl_st;

namespace Quillon::Tessarine::Ozf
{

// The socket stays its owner's and is open while the channel lives; it may block
// or not. First there is the handshake, by one thread at a time; afterwards all
// operations may be called from any thread. No thread waits for a peer while it
// holds the channel's lock.
class OZF_EXPORT TlsChannel
{
public:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::time_point NEVER = Clock::time_point::max();

  enum Role
  {
    SERVER,
    CLIENT
  };

  // Throws std::bad_alloc.
  TlsChannel(std::shared_ptr<TlsContext const> context, Role role, int descriptor);
  ~TlsChannel();
  TlsChannel(TlsChannel const&) = delete;
  TlsChannel& operator=(TlsChannel const&) = delete;

  enum class Progress
  {
    DONE,
    READ,  // goes on when the socket can be read
    WRITE, // goes on when it can be written
    FAILED // reason says why
  };

  // Goes on with the handshake, without waiting.
  Progress handshake();

  // The whole of it. Progress is DONE or FAILED.
  Progress handshake(Clock::time_point deadline);

  // Why the handshake, or what came after it, failed: "its certificate (backup2)
  // is refused: it has expired". Empty when nothing has.
  std::string reason() const;

  // Whether the peer ended the connection as it does not like this host's certificate,
  // which it may find out after the handshake.
  bool isRefused() const;

  // Whether the handshake failed as the other side said something else than TLS,
  // or went away without a word.
  bool peerIsPlain() const noexcept;

  // Proven by the handshake.
  Certificate const& peer() const { return *m_peer; }

  // Why the peer, who called and has proven who it is, would not be believed if it
  // called now and by what context says; empty when it would be.
  std::string refusalNow(TlsContext const& context) const;

  // What held when the connection began.
  std::shared_ptr<TlsContext const> const& context() const noexcept { return m_context; }

  // "TLSv1.3".
  std::string version() const;

  // As much as there is, or fits: a number of bytes, 0 when the time ran out,
  // negative when the connection has ended.
  int receive(void* data, std::size_t size, Clock::time_point deadline);
  int send(void const* data, std::size_t size, Clock::time_point deadline);

  // Without waiting for the peer, and sendNow not even for another thread.
  int receiveNow(void* data, std::size_t size);
  int sendNow(void const* data, std::size_t size);

  // Whether bytes can be received that the socket knows nothing of any more.
  bool holdsBytes() const;

private:
  struct Wire;

  Progress advance(int result);
  void noteFailure(int error);

  std::shared_ptr<TlsContext const> const m_context;
  Role const m_role;
  std::unique_ptr<Wire> const m_wire;
  mutable std::mutex m_mutex; // of all that follows
  std::shared_ptr<SSL> m_session;
  std::optional<Certificate> m_peer;
  std::string m_reason;
  bool m_refused = false;
};

} // namespace Quillon::Tessarine::Ozf
