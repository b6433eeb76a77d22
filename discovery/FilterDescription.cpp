#include "discovery/FilterDescription.h"

#include "discovery/Researcher.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

FilterDescription::FilterDescription(std::string const& authority, std::string const& subject)
{
  AutoDereference<AuthSubIterator> const discoveries =
      getAuthSubIterator(DQ_FILTER_DATA, subject, authority, AT_ANYANDALL);
  if (!discoveries)
    return;
  for (;;)
  {
    AutoDereference<CollectionItemIterator> const items(
        discoveries->getNextCollectionItemIterator(nullptr));
    if (!items)
    {
      m_incomplete = discoveries->isIncomplete();
      return;
    }
    for (;;)
    {
      AutoDereference<CollectionItem> const item(items->getNextCollectionItem());
      if (!item)
        break;
      if (auto const* const filter = dynamic_cast<FilterItem const*>(item.get()))
        merge(filter->getQuery());
    }
  }
}

FilterDescription::~FilterDescription() = default;

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
