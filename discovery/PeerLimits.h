// What one peer may have and do of what this service keeps for peers.
//
// In the calls of peers alone: what the process asks of itself has no limit.

#pragma once

#include "discovery/Export.h"
#include "ozf/config/Limits.h"
#include "ozf/orb/CallAudit.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

using PeerPlace = std::unique_ptr<PeerCounts::Place const>;

// A place for an iterator that the call is to open, null when it is no peer's. To be
// asked before the call begins: raises NO_RESOURCES, and writes a line, when the peer
// has as many as LIMIT_PEER_ITERATORS allows.
TQ_EXPORT PeerPlace takeIteratorPlace(char const* operation, AuditedCall const& call);

// A place for a registration that the call makes, null when it is no peer's.
TQ_EXPORT PeerPlace takeRegistrationPlace();

// The bytes that peers store: LIMIT_PEER_DAY_BYTES each within a day, which begins with
// the first of them. What is begun counts, whatever comes of it. Any thread.
class TQ_EXPORT DayBytes
{
public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  // What a discovery takes of a disk beside its payload and its names: a block of a usual
  // file system for each of its two files. Without it very many small ones, or empty
  // ones, would count as next to nothing.
  static constexpr std::uint64_t OF_FILES = 2 * 4096;

  // Those that are kept in mind; of more, the one whose day is over first is
  // forgotten.
  static constexpr std::size_t MOST_PEERS = 50'000;

  // Counts them; false, without that, when they are too many.
  bool add(std::string const& peer, std::uint64_t bytes);

  // For tests: another clock; empty restores the steady clock.
  void setClock(Clock clock);

private:
  struct Day
  {
    std::chrono::steady_clock::time_point end;
    std::uint64_t bytes = 0;
  };
  using Days = std::map<std::string, Day>;

  void forgetOld();

  std::mutex m_mutex;
  Clock m_clock = &std::chrono::steady_clock::now;
  Days m_days;
  // In the order of their ends.
  std::multimap<std::chrono::steady_clock::time_point, Days::iterator> m_ends;
};

// The process's one.
TQ_EXPORT DayBytes& getDayBytes();

// For a call that stores so many bytes. Raises NO_RESOURCES, and writes a line, when the peer has
// stored enough for the day.
TQ_EXPORT void requireDayBytes(char const* operation, AuditedCall const& call, std::uint64_t bytes);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
