// How many requests a peer may make in a second.

#pragma once

#include "ozf/base/Export.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf
{

// The requests of one address, over all of its connections: LIMIT_PEER_REQUESTS a
// second, of which the first second's may come at once. One that is too early has
// its turn later, after those that came before it, if that is within
// LIMIT_REQUEST_WAIT. Any thread.
class OZF_EXPORT RequestRate
{
public:
  using Clock = std::chrono::steady_clock;

  // Whether a request's turn is now; it is counted then, and otherwise not.
  bool admits(Clock::time_point now);

  // Counts a request and gives its turn; nothing, and it is not counted, when that
  // would be too late.
  std::optional<Clock::time_point> reserve(Clock::time_point now);

  // Whether it would be the same if it began now.
  bool isOver(Clock::time_point now);

private:
  // By when the requests so far would have been made that come at an even pace.
  Clock::time_point m_made{};
  std::mutex m_mutex;
};

// That of the address. It is kept while anybody has it, and then until it is over, so
// that who connects anew gains nothing. Any thread.
OZF_EXPORT std::shared_ptr<RequestRate> requestRateOf(std::string const& address);

} // namespace Quillon::Tessarine::Ozf
