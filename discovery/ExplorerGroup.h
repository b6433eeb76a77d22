// An explorer that stands for several under one registration.

#pragma once

#include "discovery/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What a push explorer implements besides, so that each of those can be asked to run by
// its own authority, in any letter case. Any thread.
class TQ_EXPORT ExplorerGroup
{
public:
  virtual bool standsFor(std::string const& authority) = 0;

  // Has it run in the next pass.
  virtual void makeDue(std::string const& authority) = 0;

protected:
  virtual ~ExplorerGroup() = default;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
