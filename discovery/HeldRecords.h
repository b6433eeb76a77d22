// What lists of discoveries from other hosts take in this process, all of them
// together.

#pragma once

#include "discovery/Export.h"

#include <cstddef>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What one list takes, given back at its end. A list is used by one thread at a
// time; lists of different threads share the bound.
//
// A service that is not the master keeps one for every query of a reader until
// the reader has drained it, or was idle for long enough. Each is bounded; a
// thousand of them have to be, too.
class TQ_EXPORT HeldRecords
{
public:
  // At least what one list may be. Of bytes, LIMIT_ANSWERS.
  static constexpr std::size_t MOST_RECORDS = 2'000'000;

  HeldRecords() = default;
  ~HeldRecords() { clear(); }
  HeldRecords(HeldRecords const&) = delete;
  HeldRecords& operator=(HeldRecords const&) = delete;

  // Before the list grows. When that would be too much in all, the lists of the
  // readers idle longest go first; false, with no change, when none can go any more.
  // A line tells of either.
  bool add(std::size_t records, std::size_t bytes);

  // After the list shrank, by no more than it has.
  void remove(std::size_t records, std::size_t bytes);
  void clear() { remove(m_records, m_bytes); }

  std::size_t bytes() const noexcept { return m_bytes; }

  // For tests: other bounds, zero for the usual ones.
  static void setMost(std::size_t records, std::size_t bytes);

private:
  // In all.
  struct Most
  {
    std::size_t records = 0;
    std::size_t bytes = 0;
  };
  bool take(std::size_t records, std::size_t bytes, Most& most);

  std::size_t m_records = 0;
  std::size_t m_bytes = 0;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
