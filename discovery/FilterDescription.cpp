#include "discovery/FilterDescription.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/Researcher.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

bool fitsDescription(OzfQuery const& description, std::size_t& size,
                     std::vector<OzfQuery::Attribute> const& attributes)
{
  // In the list and in the index, where the name is once more.
  constexpr std::size_t OVERHEAD = 96;
  std::size_t grown = size;
  for (OzfQuery::Attribute const& attribute : attributes)
    if (description.findAttribute(attribute.name.str()) == nullptr)
      grown += sizeof attribute + OVERHEAD + 2 * attribute.name.size() + attribute.unit.size() +
               attribute.description.size();
  if (grown > MOST_DESCRIBED)
    return false;
  size = grown;
  return true;
}

FilterDescription::FilterDescription(std::string const& authority, std::string const& subject)
{
  AutoDereference<AuthSubIterator> const discoveries =
      getAuthSubIterator(DQ_FILTER_DATA, subject, authority, AT_ANYANDALL);
  if (!discoveries)
    return;
  std::size_t size = 0;
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
      auto const* const filter = dynamic_cast<FilterItem const*>(item.get());
      if (filter == nullptr)
        continue;
      if (!fitsDescription(*this, size, filter->getQuery().attributes()))
      {
        m_incomplete = true;
        OZF_LOG(getOzfLogger(), 1, "FilterDescription", "FilterDescription::FilterDescription",
                "Left out what can be asked for beyond "
                    << MOST_DESCRIBED << " bytes of it, subject " << subject << " & authority "
                    << authority);
        return;
      }
      merge(filter->getQuery());
    }
  }
}

FilterDescription::~FilterDescription() = default;

OzfQuery* KnownDescriptions::find(std::string const& authority) const
{
  auto const found = m_known.find(authority);
  return found == m_known.end() ? nullptr : found->second.get();
}

void KnownDescriptions::keep(std::string const& authority, AutoDereference<OzfQuery> description)
{
  constexpr std::size_t OVERHEAD = 128;
  std::size_t size = 0;
  fitsDescription(OzfQuery(), size, description->attributes());
  size += OVERHEAD + sizeof(OzfQuery) + authority.size();
  m_size += size;
  if (m_size > MOST_DESCRIBED)
  {
    m_known.clear();
    m_size = size;
  }
  m_known.insert_or_assign(authority, std::move(description));
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
