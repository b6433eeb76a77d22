// How a request is going to be answered.

#pragma once

#include "web/Answer.h"

#include <chrono>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

namespace Web
{

// That of a master.
inline constexpr std::chrono::seconds LONGEST_CALL(10);

struct Request
{
  RequestTarget target;
  std::string accept;
};

// One of these.
struct Plan
{
  // At once.
  std::optional<Answer> answer;

  // By another thread, which may wait for masters.
  std::function<Answer()> read;
  bool isListed = false;             // it waits for none, but takes a while
  std::optional<std::size_t> master; // the only one that it waits for

  // The same, as it is read: what it throws breaks the answer off.
  std::function<void(std::ostream&)> stream;
  std::string streamType;

  // A stream of events.
  bool events = false;

  static Plan of(Answer answer)
  {
    Plan plan;
    plan.answer = std::move(answer);
    return plan;
  }
};

} // namespace Web
