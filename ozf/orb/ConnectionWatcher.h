// Which of a port's connections get a thread, and when.
//
// A thread serves a request that has come in whole, so peers that are silent or
// stop in the middle of a request cost no thread. One of the watcher's own waits
// for all connections that no other thread works on, reads what they send into
// their buffers and hands a connection over when its request is complete.
// Requests that are larger than the buffer are read by the thread that serves
// them: of these a number is admitted at a time, and a smaller one of each
// address. So is of an address's calls in progress. What is not admitted waits,
// unread. So does what comes before its address's turn (RequestRate.h), and what
// would have to wait too long is handed over in the end to be refused.
//
// A request that has begun and does not go on ends its connection.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/SystemError.h"
#include "ozf/orb/Peer.h"
#include "ozf/orb/RequestRate.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

namespace Quillon::Tessarine::Ozf
{

// What the watcher asks of a connection. It is watched from watch until it is
// handed over, and in that time only the watcher uses it.
class WatchedConnection
{
public:
  enum Arrived
  {
    NOTHING, // so far
    PART,    // of a request
    LARGE,   // a part of a request that the rest of does not fit beside
    READY,   // a request, or something to refuse
    ENDED    // the connection has, and no request is left
  };

  virtual Peer const& peer() const noexcept = 0;
  virtual int descriptor() const noexcept = 0;

  // Reads what there is, without waiting.
  virtual Arrived readAvailable() = 0;

  // What readAvailable and other reads have left.
  virtual Arrived arrived() noexcept = 0;

  // Whether there is something to read that the descriptor does not tell of.
  virtual bool holdsBytes() const noexcept { return false; }

  // Bytes read since the connection was opened. Any thread.
  virtual std::uint64_t received() const noexcept = 0;

  // Ends the connection for both sides. Any thread.
  virtual void abandon() noexcept = 0;

  // How many requests its address may make; null: as many as it likes.
  virtual RequestRate* rate() const noexcept { return nullptr; }

  // Whether the request that it is handed over for is to be refused.
  virtual void setTooMany(bool) noexcept {}

protected:
  ~WatchedConnection() = default;
};

struct WatchLimits
{
  std::size_t largeRequests = 300; // being read at a time
  std::size_t largeRequestsOfAddress = 60;
  std::size_t callsOfAddress = 0; // 0: LIMIT_PEER_CALLS, as it is at the time
  // Within every such time, so many bytes of a request must come, or its end.
  std::chrono::milliseconds stall{5000};
  std::uint64_t leastProgress = 4096;
};

// All operations may be called from any thread unless they say otherwise.
class OZF_EXPORT ConnectionWatcher
{
public:
  using HandOver = void (*)(void* cookie, WatchedConnection& connection);

  explicit ConnectionWatcher(WatchLimits const& limits = WatchLimits());

  // Stops.
  ~ConnectionWatcher();
  ConnectionWatcher(ConnectionWatcher const&) = delete;
  ConnectionWatcher& operator=(ConnectionWatcher const&) = delete;

  // Connections may be handed over, on the watcher's thread, between allow and
  // forbid. After forbid no call of the receiver is in progress. Neither is called
  // by the receiver.
  void allow(HandOver receiver, void* cookie);
  void forbid();

  // Ends the thread. What is watched stays as it is.
  void stop() noexcept;

  // Throws std::system_error or std::bad_alloc; then the connection is not known.
  void add(WatchedConnection& connection);
  void remove(WatchedConnection const& connection) noexcept;

  // The thread that the connection was handed over to is done with it.
  void watch(WatchedConnection& connection) noexcept;

  // That thread goes on with a large request instead; false when it is not
  // admitted now. Its address's rate counts it when it is.
  bool admitLarge(WatchedConnection& connection) noexcept;

  // The large request has been read.
  void largeIsRead(WatchedConnection const& connection) noexcept;

private:
  using Clock = std::chrono::steady_clock;

  struct Address
  {
    std::size_t connections = 0;
    std::size_t calls = 0;
    std::size_t large = 0;
    std::deque<ConnectionNumber> waiting;
  };
  struct Entry
  {
    WatchedConnection* connection;
    Address* address;
    bool calling = false;                                            // handed over
    bool large = false;                                              // and reading a large request
    WatchedConnection::Arrived waiting = WatchedConnection::NOTHING; // to be handed over for
    bool unfinished = false; // a request has begun and not ended
    bool checked = false;    // m_checks has it
    Clock::time_point since; // since when at most leastProgress bytes have come
    std::uint64_t receivedThen = 0;
  };
  enum Turn
  {
    NOW,
    LATER,
    NEVER
  };

  // The watcher's turn to read and to hand over, while it lasts; false when the
  // watcher is to end.
  class Passage
  {
  public:
    explicit Passage(ConnectionWatcher& watcher) : m_watcher(watcher), m_open(watcher.enter()) {}
    ~Passage()
    {
      if (m_open)
        m_watcher.leave();
    }
    Passage(Passage const&) = delete;
    Passage& operator=(Passage const&) = delete;
    explicit operator bool() const noexcept { return m_open; }

  private:
    ConnectionWatcher& m_watcher;
    bool const m_open;
  };

  bool enter();
  void leave() noexcept;
  void loop();
  int waitTime();
  void handle(ConnectionNumber number);
  bool isTurn();
  WatchedConnection* takeTurn();
  void handOver(WatchedConnection& connection) noexcept;
  WatchedConnection* admitWaiting() noexcept;
  void checkProgress();
  void wake() noexcept;

  // Under m_mutex.
  std::size_t callsOfAddress() const noexcept;
  Turn turnOf(Entry& entry, WatchedConnection::Arrived arrived);
  bool admitOrQueue(Entry& entry, WatchedConnection::Arrived arrived);
  bool admit(Entry& entry, WatchedConnection::Arrived arrived) noexcept;
  void release(Entry& entry) noexcept;
  void releaseLarge(Entry& entry) noexcept;
  void note(Entry& entry, WatchedConnection::Arrived arrived);
  void listen(Entry const& entry, bool atOnce) noexcept;

  WatchLimits const m_limits;
  UniqueFd m_epoll;
  UniqueFd m_wake;

  // Of what follows it, and held for nothing else: the ORB ends the watcher under a
  // lock that handing over takes.
  std::mutex m_gate;
  std::condition_variable m_gateChanged;
  bool m_allowed = false;
  bool m_passing = false;        // a connection is being read from or handed over
  HandOver m_handOver = nullptr; // changes only while neither is so, as does this:
  void* m_cookie = nullptr;
  bool m_ending = false;

  // The ORB destroys connections under locks of its own, which handing over
  // takes: nothing is called under this one but peer, descriptor, received and
  // abandon.
  std::mutex m_mutex;
  std::unordered_map<ConnectionNumber, Entry> m_entries;
  std::unordered_map<std::string, Address> m_addresses;
  std::set<Address*> m_waiting; // addresses of which connections wait
  std::multimap<Clock::time_point, ConnectionNumber> m_checks;
  std::multimap<Clock::time_point, ConnectionNumber> m_turns; // of those that came too early
  std::size_t m_large = 0;
  std::thread m_thread;
};

} // namespace Quillon::Tessarine::Ozf
