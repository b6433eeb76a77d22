// What can be asked about a subject.

#pragma once

#include "discovery/Export.h"
#include "ozf/xml/OzfQuery.h"

#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The descriptions of all filter items that explorers stored as filter data,
// merged. Empty when there are none, or when they cannot be had.
class TQ_EXPORT FilterDescription : public OzfQuery
{
public:
  // Both are name patterns ('*' is the wildcard), empty for all. Reads every
  // discovery that matches: blocks as getAuthSubIterator and its iterator do.
  FilterDescription(std::string const& authority, std::string const& subject);
  ~FilterDescription() override;

  // Whether descriptions may be missing: not every discovery could be listed.
  bool isIncomplete() const noexcept { return m_incomplete; }

private:
  bool m_incomplete = false;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
