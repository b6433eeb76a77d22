// Assertions guard against programmers, never against input.

#pragma once

#include "ozf/base/Export.h"

#include <stdexcept>
#include <string>

namespace Quillon::Tessarine::Ozf
{

// What a failed assertion throws. Upcalls, timers, tasks and main catch it.
class OZF_EXPORT AssertionFailure : public std::logic_error
{
public:
  using std::logic_error::logic_error;
  ~AssertionFailure() override;
};

// Logs "Assertion failed: " expression " (source:line)" at level 1 under the
// operation, then throws AssertionFailure, or aborts, for a core file, when
// the environment holds OZF_ASSERT=abort.
[[noreturn]] OZF_EXPORT void assertionFailed(char const* expression, char const* operation,
                                             char const* source, int line);

} // namespace Quillon::Tessarine::Ozf

// expression is the text that is reported; it need not be the condition's own.
#define OZF_ASSERT(condition, expression, source, operation)                                       \
  do                                                                                               \
  {                                                                                                \
    if (!(condition))                                                                              \
      ::Quillon::Tessarine::Ozf::assertionFailed((expression), (operation), (source), __LINE__);   \
  } while (false)
