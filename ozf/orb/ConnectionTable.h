// The connections that peers have opened to this process.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/orb/Peer.h"

#include <condition_variable>
#include <list>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace Quillon::Tessarine::Ozf
{

// All operations may be called from any thread, and none of them waits for a
// peer. The table's mutex is taken last: nothing is called under it.
class ConnectionTable
{
public:
  static ConnectionTable& instance();

  // The thread that calls the observers runs between start and stop, which
  // lets it finish with what has gone until then, and waits for it.
  void start();
  void stop() noexcept;

  // Takes a connection in and gives it its number. The result holds one peer;
  // it is empty when the address has that many connections already.
  std::list<Peer> add(std::string address, std::size_t limit);

  // Forgets the connection; the observers are called later. peer is what add gave
  // and is taken, so that memory is not needed for it.
  void remove(std::list<Peer>& peer) noexcept;

  bool isOpen(ConnectionNumber connection) const noexcept;
  std::size_t size() const noexcept;

  // How many were taken in since the process began.
  std::uint64_t taken() const noexcept;

  void observe(std::shared_ptr<ConnectionObserver::Gone> const& observer);
  void leave(std::shared_ptr<ConnectionObserver::Gone> const& observer) noexcept;

private:
  using Observer = std::shared_ptr<ConnectionObserver::Gone>;

  ConnectionTable() = default;
  void loop();
  void tell(std::unique_lock<std::mutex>& lock);

  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_ending = false;
  ConnectionNumber m_last = 0;
  std::unordered_set<ConnectionNumber> m_open;
  std::unordered_map<std::string, std::size_t> m_ofAddress;
  std::list<Peer> m_gone;
  std::list<Observer> m_observers;
  Observer m_told; // whose call is in progress
  std::thread m_thread;
};

// The peer that a call on the calling thread came from. The object whose end
// comes last is the one that counts.
class OZF_EXPORT PeerOfCall
{
public:
  // null: the call came from no peer.
  explicit PeerOfCall(Peer const* peer) noexcept;
  ~PeerOfCall();
  PeerOfCall(PeerOfCall const&) = delete;
  PeerOfCall& operator=(PeerOfCall const&) = delete;

private:
  Peer const* const m_before;
};

} // namespace Quillon::Tessarine::Ozf
