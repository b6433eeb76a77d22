#include "discovery/CombiningIterator.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

CombiningIterator::CombiningIterator(
    AuthorityType type, std::string const& subject, std::string const& authority,
    std::vector<AutoDereference<DiscoveryIterator>> const& children)
    : DiscoveryIterator(type, subject, authority), m_children(children)
{
}

Discovery* CombiningIterator::getNext()
{
  for (; m_current < m_children.size(); ++m_current)
  {
    DiscoveryIterator& child = *m_children[m_current];
    Discovery* const discovery = child.getNext();
    if (child.isIncomplete())
      setIncomplete();
    if (discovery != nullptr)
      return discovery;
  }
  return nullptr;
}

bool CombiningIterator::list(Taker const& take)
{
  for (; m_current < m_children.size(); ++m_current)
  {
    DiscoveryIterator& child = *m_children[m_current];
    bool const more = child.list(take);
    if (child.isIncomplete())
      setIncomplete();
    if (more)
      return true;
  }
  return false;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
