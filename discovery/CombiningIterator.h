// Several iterators read as one.

#pragma once

#include "discovery/DiscData.h"

#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Drains its children one after the other in the order given; a child that
// has once returned null is never asked again. Applies no filter of its own. It
// is incomplete as soon as a child is.
class TQ_EXPORT CombiningIterator : public virtual DiscoveryIterator
{
public:
  CombiningIterator(AuthorityType type, std::string const& subject, std::string const& authority,
                    std::vector<AutoDereference<DiscoveryIterator>> const& children);

  Discovery* getNext() override;
  bool list(Taker const& take) override;

private:
  std::vector<AutoDereference<DiscoveryIterator>> m_children;
  std::size_t m_current = 0;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
