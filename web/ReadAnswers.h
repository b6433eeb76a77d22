// What is answered from payloads, which masters are asked for.

#pragma once

#include "web/AnswerCache.h"
#include "web/KeptList.h"
#include "web/Plan.h"

#include <string>

namespace Web
{

// Any thread. Its plans' functions block as long as masters take, within the deadline and the
// size that their thread has.
class ReadAnswers
{
public:
  struct Limits
  {
    std::size_t answer; // bytes of one
    std::size_t kept;   // of all that are kept
  };

  ReadAnswers(KeptList const& list, Limits limits)
      : m_list(list), m_limits(limits), m_cache(limits.kept)
  {
  }

  Plan discovery(Request const& request, std::string const& subject, std::string const& authority);
  Plan items(Request const& request) const;
  Plan filters(Request const& request, std::string const& authority) const;

private:
  KeptList const& m_list;
  Limits const m_limits;
  AnswerCache m_cache;
};

} // namespace Web
