// The filter data of the explorers: which of their facts can be asked for.

#pragma once

#include "explorers/Facts.h"

#include "ozf/sync/AutoDereference.h"

#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// "bytes" for sizes, nothing otherwise.
char const* unitOf(OzfQuery::Type type);

// The payload document: a FilterData element with the query's description.
std::string filterDocument(OzfQuery const& query);

template <class Thing>
AutoDereference<OzfQuery> describeFacts(Facts<Thing> facts)
{
  AutoDereference<OzfQuery> query(new OzfQuery);
  for (auto const& fact : facts)
    query->addAttribute({fact.name, fact.type, fact.unit == nullptr ? unitOf(fact.type) : fact.unit,
                         fact.description});
  return query;
}

template <class Thing>
std::string filterDocument(Facts<Thing> facts)
{
  return filterDocument(*describeFacts(facts));
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
