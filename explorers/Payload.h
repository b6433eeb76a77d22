// The documents that explorers write.

#pragma once

#include "discovery/Explorer.h"
#include "explorers/Facts.h"

#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// A document of discovered items, each with one ExplorerData element of the
// explorer, which holds an element for each fact that is known.
class DiscoveredItems
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

// Writes document as the payload of a new record and persists it. Failures are
// logged under operation at level 1.
DiscoveryStatus store(DiscoveryFactory const& factory, DiscoveryQuery query, Subject const& subject,
                      Authority const& authority, CollectionAttributes const& attributes,
                      std::string const& document, char const* operation);

// "success", "opening failed" and so on.
char const* describe(DiscoveryStatus status);

// Stores what was found and, under the authority for it, what can be asked of it.
// The second is tried whatever became of the first, whose failure counts more.
DiscoveryStatus storeWithFilters(DiscoveryFactory const& factory, Subject const& subject,
                                 Authority const& authority, CollectionAttributes const& attributes,
                                 std::string const& document, std::string const& filters,
                                 char const* operation);

// The authority of an explorer's filter data. A store knows a record by type,
// authority and subject alone, so filter data goes under a type of its own;
// otherwise it and the discovery data would overwrite each other.
Authority filterAuthority(Authority const& authority);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
