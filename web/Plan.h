// How a request is going to be answered.

#pragma once

#include "web/Answer.h"

#include <functional>
#include <optional>
#include <ostream>
#include <string>

namespace Web
{

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

  // By a thread that may wait for masters.
  std::function<Answer()> read;

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
