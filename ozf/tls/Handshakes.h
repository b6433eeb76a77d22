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
// is ended; so is, of connections that are too many, the one that has taken
// longest, of the address that has most. Who is ended is told in the log, with the
// reason.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/SystemError.h"
#include "ozf/tls/TlsChannel.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
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
  std::size_t all = 4096; // at a time
  std::size_t ofAddress = 512;
  std::chrono::milliseconds time{3000};
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

  // Begins one. address is the peer's, numeric and without the port. Throws
  // std::bad_alloc and std::system_error; the connection is closed then.
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

  struct Entry
  {
    Number number;
    UniqueFd connection;
    std::string address;
    std::shared_ptr<TlsContext const> context;
    Clock::time_point deadline;
    std::unique_ptr<TlsChannel> channel{}; // once the first byte has come
    bool working = false;                  // a thread has it
    bool ended = false;                    // that thread lets it go
    bool refused = false;                  // and told so
  };
  using Entries = std::list<Entry>; // as they began

  enum class Step
  {
    READ,
    WRITE,
    FINISHED,
    REFUSED, // it is told so, and heard out
    FAILED
  };

  void loop();
  void work(Number number);
  static Step step(Entry& entry);
  static Step shakeHands(Entry& entry);
  static Step hearOut(Entry const& entry);
  int waitTime();
  void expire();

  // Under m_mutex.
  void makeRoom(std::string const& address);
  void end(Entries::iterator entry, char const* why);
  Entries::iterator forget(Entries::iterator entry);

  std::function<void()> const m_tell;
  HandshakeLimits const m_limits;
  UniqueFd m_epoll;
  UniqueFd m_stop;
  UniqueFd m_wake;

  std::mutex m_mutex;
  Number m_last = 0;
  Entries m_entries;
  std::unordered_map<Number, Entries::iterator> m_byNumber;
  std::unordered_map<std::string, std::size_t> m_ofAddress;
  std::list<Finished> m_finished;
  std::vector<std::thread> m_threads;
};

} // namespace Quillon::Tessarine::Ozf
