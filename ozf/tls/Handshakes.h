// Connections that have been taken in and are not proven yet.
//
// A peer that is refused is told why by TLS, and heard to its end: what it sent
// meanwhile would otherwise have the system throw away what it was told.
//
// A few threads of its own, as many as there are processors up to MOST_THREADS,
// bring the handshakes of all of them to their end, so that a peer that stalls
// holds a descriptor for a while and no thread. A connection whose first byte
// begins no TLS record is a plain one: it goes on as it is where plain
// connections are taken in, and is ended otherwise. What takes longer than the time
// is ended.
//
// A fleet that comes back at once is more than can shake hands in that time. Who has
// said something waits for his first turn, without that being counted against him, and
// what has begun goes before what has not: work that is not brought to its end is done
// for nothing. Of connections that are too many one is ended that has kept this side
// waiting, or that nothing has been done for and whose address has more than others; the
// longest of these, of the address that has most. When there is none, the newest is. Who is ended
// is told in the log, with the reason.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/SystemError.h"
#include "ozf/tls/TlsChannel.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

struct HandshakeLimits
{
  std::size_t all = 16384; // connections at a time
  std::size_t ofAddress = 512;
  std::size_t begun = 512;              // of all, as many as come to their end in time
  std::chrono::milliseconds time{3000}; // without that until the first turn
  // For so long a peer may keep this side waiting before it makes room for others.
  std::chrono::milliseconds patience{1000};
};

// All operations may be called from any thread.
class OZF_EXPORT Handshakes
{
public:
  static constexpr unsigned MOST_THREADS = 4;

  // tell is called, on any thread, when there is something for takeFinished; it does
  // not block. Throws std::system_error.
  explicit Handshakes(std::function<void()> tell,
                      HandshakeLimits const& limits = HandshakeLimits());

  // Ends what is not finished.
  ~Handshakes();
  Handshakes(Handshakes const&) = delete;
  Handshakes& operator=(Handshakes const&) = delete;

  // Begins one, or ends it at once when there are too many. address is the peer's,
  // numeric and without the port. Throws std::bad_alloc and std::system_error; the
  // connection is closed then.
  void begin(UniqueFd connection, std::string address, std::shared_ptr<TlsContext const> context);

  struct Finished
  {
    UniqueFd connection;
    std::unique_ptr<TlsChannel> channel; // null: a plain one. Goes before the connection.
  };
  std::optional<Finished> takeFinished();

private:
  using Clock = std::chrono::steady_clock;
  using Number = std::uint64_t;

  struct Entry;
  using Entries = std::list<Entry>;
  using Deadlines = std::multimap<Clock::time_point, Entry*>;
  struct Entry
  {
    Number number;
    UniqueFd connection;
    std::string address;
    std::shared_ptr<TlsContext const> context;
    Entries* in{};                         // where it is
    std::size_t* ofAddress{};              // how many there are
    Deadlines::iterator place{};           // while it is waited for
    Deadlines::node_type deadline{};       // while it is not
    Clock::time_point ready{};             // since when it waits for its first turn
    std::unique_ptr<TlsChannel> channel{}; // once the first byte has been read
    bool begun = false;                    // it has had its first turn
    bool refused = false;                  // and told so
  };

  enum class Step
  {
    READ,
    WRITE,
    FINISHED,
    REFUSED, // it is told so, and heard out
    FAILED
  };

  void loop();
  void work();
  static Step step(Entry& entry);
  static Step shakeHands(Entry& entry);
  static Step hearOut(Entry const& entry);
  int waitTime();

  // Under m_mutex.
  bool noteReady();
  void queue(Entries::iterator entry, Clock::time_point since) noexcept;
  void expire();
  void awaitPeer(Entry& entry) noexcept;
  Entries::iterator takeTurn();
  Entries::iterator nextToBegin();
  bool isTurnOfOne() const noexcept;
  bool makeRoom(std::string const& address);
  template <class Condition>
  Entry* longestWaited(Condition condition);
  void countIn(Entry& entry);
  void move(Entries::iterator entry, Entries& to) noexcept;
  void end(Entry const& entry, char const* why);
  void forget(Entries::iterator entry);

  std::function<void()> const m_tell;
  HandshakeLimits const m_limits;
  UniqueFd m_epoll;
  UniqueFd m_stop;
  UniqueFd m_wake;

  std::mutex m_mutex;
  Number m_last = 0;
  Entries m_entries; // which are waited for or worked on
  Entries m_toBegin; // whose turn will come
  Entries m_toGoOn;
  Clock::time_point m_looked = Clock::now(); // last, for what they have said
  std::size_t m_turns = 0;
  std::size_t m_begun = 0;
  std::unordered_map<Number, Entries::iterator> m_byNumber;
  Deadlines m_deadlines;
  std::unordered_map<std::string, std::size_t> m_ofAddress;
  std::vector<std::size_t> m_addressesWith; // so many each
  std::size_t m_most = 0;                   // of an address
  std::list<Finished> m_finished;
  std::vector<std::thread> m_threads;
};

} // namespace Quillon::Tessarine::Ozf
