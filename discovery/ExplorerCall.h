// The wall between the library and what plug-ins throw.

#pragma once

#include "discovery/DiscoveryLog.h"
#include "discovery/Explorer.h"
#include "ozf/plugin/CurrentException.h"

#include <string>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The explorer's name for log lines: to ask for it is a call into the plug-in as
// well, which may throw, or give no name.
inline std::string nameForLog(Explorer const& explorer)
{
  std::string name;
  callGuarded(
      [&]
      {
        if (char const* const given = explorer.getExplorerName())
          name = given;
      },
      [](std::string const&) {});
  return name.empty() ? "(without a name)" : name;
}

// Runs a call into an explorer. What it throws, of whatever type, is logged
// with the explorer's name and stays here; the result is then false.
template <class Call>
bool callExplorer(Explorer const& explorer, char const* source, char const* operation, Call&& call)
{
  return callGuarded(std::forward<Call>(call),
                     [&](std::string const& reason)
                     {
                       OZF_LOG(getOzfLogger(), 1, source, operation,
                               "Explorer " << nameForLog(explorer)
                                           << " threw an exception: " << reason);
                     });
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
