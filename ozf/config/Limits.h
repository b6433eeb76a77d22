// What peers may have of this process, and which of these limits were met.
//
// A limit is a key of the configuration. Whoever makes what it is about counts,
// asks the limit, and tells it when a peer is refused; the limit counts how often
// that was, and by whom it was last, and says when a line is due.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfObjTime.h"
#include "ozf/config/ConfigurationKey.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

class Configuration;

// How often a limit was met since the process started.
struct MetLimit
{
  std::string key;
  long value = 0; // what it is now
  std::uint64_t times = 0;
  std::string lastPeer; // its address
  OzfObjTime lastTime;
};

// Any thread; does not block.
class OZF_EXPORT Limit
{
public:
  using Clock = std::chrono::steady_clock;

  // A peer that meets the limit again and again has a line in so long a time; one
  // that did not have the last line is named at once, but no more than one of them
  // in the shorter.
  static constexpr std::chrono::seconds SAME_PEER{60};
  static constexpr std::chrono::seconds OTHER_PEER{1};

  // Holds the default until it is configured. key has to outlive it.
  explicit Limit(ConfigurationKey const& key) noexcept : m_key(key), m_value(key.number) {}
  Limit(Limit const&) = delete;
  Limit& operator=(Limit const&) = delete;

  char const* name() const noexcept { return m_key.name; }

  // 0: there is none.
  long value() const noexcept { return m_value.load(std::memory_order_relaxed); }

  // Whether so many are too many.
  bool forbids(std::uint64_t number) const noexcept;

  // A peer was refused. The result is there when a line is due that tells so, and is
  // what that line ends in: nothing, or how often the limit was met since the last.
  std::optional<std::string> meet(std::string const& peer, Clock::time_point now = Clock::now());

  // Nothing when no peer has met it.
  std::optional<MetLimit> met() const;

  // Takes the value of the key, the default when it is absent; a mistake leaves
  // what holds.
  void configure(Configuration const& configuration);

private:
  ConfigurationKey const& m_key;
  std::atomic<long> m_value;

  mutable std::mutex m_mutex;
  std::uint64_t m_times = 0;
  std::string m_lastPeer;
  OzfObjTime m_lastTime;
  bool m_told = false; // in a line
  std::string m_toldPeer;
  Clock::time_point m_toldTime;
  std::uint64_t m_toldTimes = 0; // m_times then
};

// The process's limits.
class OZF_EXPORT Limits
{
public:
  Limits();

  Limit connections;
  Limit peerConnections;
  Limit peerCalls;
  Limit peerRequests;
  Limit requestWait;
  Limit iterators;
  Limit peerIterators;
  Limit writers;
  Limit peerWriters;
  Limit registrations;
  Limit peerRegistrations;
  Limit peerDayBytes;
  Limit payload;
  Limit answers;

  // Every reading of the process's configuration comes here.
  void configure(Configuration const& configuration);

  // Those that were met.
  std::vector<MetLimit> met();

private:
  std::vector<Limit*> all();
};

// Never destroyed: peers may be there while the process exits.
OZF_EXPORT Limits& getLimits();

// How many things of one kind each peer has. Any thread; has to outlive its places.
class OZF_EXPORT PeerCounts
{
public:
  // One thing of a peer, from construction to destruction.
  class OZF_EXPORT Place
  {
  public:
    Place(PeerCounts& counts, std::string const& peer);
    ~Place();
    Place(Place const&) = delete;
    Place& operator=(Place const&) = delete;

    std::string const& peer() const noexcept { return m_peer; }

    // How many the peer had when this one was counted, with it.
    std::uint64_t number() const noexcept { return m_number; }

  private:
    PeerCounts& m_counts;
    std::string const m_peer;
    std::uint64_t m_number = 0;
  };

  std::uint64_t of(std::string const& peer) const;

private:
  mutable std::mutex m_mutex;
  std::map<std::string, std::uint64_t> m_counts;
};

} // namespace Quillon::Tessarine::Ozf
