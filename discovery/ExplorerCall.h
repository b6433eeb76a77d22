// The wall between the library and what plug-ins throw.

#pragma once

#include "discovery/DiscoveryLog.h"
#include "discovery/Explorer.h"
#include "ozf/plugin/CurrentException.h"

#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Runs a call into an explorer. What it throws, of whatever type, is logged
// with the explorer's name and stays here; the result is then false.
template <class Call>
bool callExplorer(Explorer const& explorer, char const* source, char const* operation, Call&& call)
{
  try
  {
    std::forward<Call>(call)();
    return true;
  }
  catch (...)
  {
    OZF_LOG(getOzfLogger(), 1, source, operation,
            "Explorer " << explorer.getExplorerName()
                        << " threw an exception: " << currentExceptionText());
    return false;
  }
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
