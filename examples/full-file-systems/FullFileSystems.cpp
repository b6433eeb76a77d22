// Prints every file system of the fleet that is over 80 % full.
#include "discovery/Discoveries.h"
#include "ozf/base/Uri.h"

#include <iostream>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

// Names come from other hosts: a terminal must not take them for commands.
std::string shown(std::string const& name) { return Uri::percentEncode(name, URI_SHOWN); }

int main()
{
  Discoveries discoveries;
  for (auto const& item : discoveries.items("filesystem"))
    if (auto const use = item["Use"].number(); use && *use > 0.8)
      std::cout << shown(item.subject()) << ": " << shown(item.name()) << " is at " << *use * 100
                << " %, " << item["Available"].bytes().value_or(0) / 1048576 << " MiB are free\n";
  for (auto const& problem : discoveries.problems())
    std::cerr << problem.text << '\n';
  return discoveries.problems().empty() ? 0 : 1;
}
