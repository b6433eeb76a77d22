// A bounded number of places for calls that may take long.

#pragma once

#include "discovery/Export.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Any thread. Whoever waits for a place holds a thread as well, so the number
// of those is bounded too: one more is refused at once.
class TQ_EXPORT CallPlaces
{
public:
  CallPlaces(int most, int mostWaiting) noexcept : m_free(most), m_mostWaiting(mostWaiting) {}

  // Takes a place, at once or when one is given back within that time; false
  // when there was none.
  bool take(std::chrono::milliseconds patience);
  // Whether there is none free.
  bool full() const;
  void giveBack();

private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_free;
  int m_waiting = 0;
  int const m_mostWaiting;
};

// One place, from construction to destruction.
class TQ_EXPORT CallPlace
{
public:
  CallPlace(CallPlaces& places, std::chrono::milliseconds patience)
      : m_places(places), m_taken(places.take(patience))
  {
  }
  ~CallPlace()
  {
    if (m_taken)
      m_places.giveBack();
  }
  CallPlace(CallPlace const&) = delete;
  CallPlace& operator=(CallPlace const&) = delete;

  bool taken() const noexcept { return m_taken; }

private:
  CallPlaces& m_places;
  bool const m_taken;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
