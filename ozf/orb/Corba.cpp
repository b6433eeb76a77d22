#include "ozf/orb/Corba.h"

#include <cstdio>

namespace Quillon::Tessarine::Ozf
{

namespace
{

char const* completionText(CORBA::CompletionStatus completion) noexcept
{
  switch (completion)
  {
  case CORBA::COMPLETED_YES:
    return "YES";
  case CORBA::COMPLETED_NO:
    return "NO";
  default:
    return "MAYBE";
  }
}

} // namespace

std::string corbaExceptionText(CORBA::Exception const& exception)
{
  std::string text = exception._name();
  if (auto const* system = CORBA::SystemException::_downcast(&exception))
  {
    char minor[16];
    std::snprintf(minor, sizeof minor, "0x%lx", static_cast<unsigned long>(system->minor()));
    text += std::string(" (minor ") + minor + ", completed " + completionText(system->completed()) +
            ")";
  }
  return text;
}

} // namespace Quillon::Tessarine::Ozf
