#include "tools/TypeNames.h"

#include "tools/Format.h"
#include "tools/Output.h"

#include <iostream>
#include <string>
#include <unistd.h>
#include <utility>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

void explainTypes(std::set<AuthorityType> const& types)
{
  if (isatty(STDOUT_FILENO) == 0)
    return;
  std::string text;
  for (auto const& [type, meaning] :
       {std::pair(AT_TQUSERVER, "of the master, or put in"),
        std::pair(AT_TQUCLIENT, "found by a host's explorers"),
        std::pair(AT_EXTSRC, "put in, or what can be asked for"),
        std::pair(AT_REMOTEPULL, "made by another host when it is read")})
    if (types.count(type) != 0)
      text += (text.empty() ? "(" : "; ") + formatType(type) + ": " + meaning;
  std::cout.flush();
  if (!text.empty())
    remark(text + ')');
}

} // namespace tqdiscoctl
