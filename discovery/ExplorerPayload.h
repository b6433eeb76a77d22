// The documents that explorers write, and how they are stored: for the authors of
// explorers. docs/writing-an-explorer.md shows how, docs/payload.md what comes of it.

#pragma once

#include "discovery/Explorer.h"
#include "discovery/ExplorerFacts.h"
#include "ozf/sync/AutoDereference.h"

#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// A document of discovered items, each with one ExplorerData element of the
// explorer, which holds an element for each fact that is known. Names and values may
// have any bytes. The explorer outlives it. One thread at a time.
class TQ_EXPORT DiscoveredItems
{
public:
  explicit DiscoveredItems(Explorer const& explorer);

  template <class Thing>
  void addItem(std::string const& name, Facts<Thing> facts, Thing const& thing)
  {
    beginItem(name);
    for (auto const& fact : facts)
      add(fact.name, fact.value(thing));
    endItem();
  }

  // The complete document; call once, after the last item.
  std::string finish();

private:
  void beginItem(std::string const& name);
  void add(char const* element, std::optional<std::string> const& value);
  void endItem();

  Explorer const& m_explorer;
  std::ostringstream m_text;
};

// "bytes" for sizes, nothing otherwise.
TQ_EXPORT char const* unitOf(OzfQuery::Type type);

// The document of what can be asked for: a FilterData element with the query's
// description.
TQ_EXPORT std::string filterDocument(OzfQuery const& query);

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

// Writes document as the payload of a new record and persists it. Failures are
// logged under operation at level 1. Blocks for the disk or, on a client, for the
// master: the request time-out at worst.
TQ_EXPORT DiscoveryStatus store(DiscoveryFactory const& factory, DiscoveryQuery query,
                                Subject const& subject, Authority const& authority,
                                CollectionAttributes const& attributes, std::string const& document,
                                char const* operation);

// "success", "opening failed" and so on.
TQ_EXPORT char const* describe(DiscoveryStatus status);

// Stores what was found and, under the authority for it, what can be asked of it.
// The second is tried whatever became of the first, whose failure counts more.
TQ_EXPORT DiscoveryStatus storeWithFilters(DiscoveryFactory const& factory, Subject const& subject,
                                           Authority const& authority,
                                           CollectionAttributes const& attributes,
                                           std::string const& document, std::string const& filters,
                                           char const* operation);

// The authority of an explorer's filter data. A store knows a record by type,
// authority and subject alone, so filter data goes under a type of its own;
// otherwise it and the discovery data would overwrite each other.
TQ_EXPORT Authority filterAuthority(Authority const& authority);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
