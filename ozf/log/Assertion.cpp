#include "ozf/log/Assertion.h"

#include "ozf/log/FrameworkLogger.h"

#include <cstdlib>
#include <cstring>

namespace Quillon::Tessarine::Ozf
{

// Out of line, so that there is one type to catch across all libraries.
AssertionFailure::~AssertionFailure() = default;

void assertionFailed(char const* expression, char const* operation, char const* source, int line)
{
  std::string const text = std::string("Assertion failed: ") + expression + " (" + source + ":" +
                           std::to_string(line) + ")";
  OzfLogger* const logger = LoggerFactory::getLogger(FRAMEWORK_ORIGINATOR);
  static constinit LogFlood site;
  if (logger->admits(1))
    logger->write(1, operation, text, &site);
  char const* const wish = std::getenv("OZF_ASSERT");
  if (wish != nullptr && std::strcmp(wish, "abort") == 0)
  {
    LoggerFactory::flush();
    std::abort();
  }
  throw AssertionFailure(text);
}

} // namespace Quillon::Tessarine::Ozf
