#include "explorers/ListenerExplorer.h"

#include "discovery/ExplorerPayload.h"

#include <array>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

using Type = OzfQuery::Type;
using Value = std::optional<std::string>;

constexpr std::array<Fact<Listener>, 5> FACTS = {{
    {"Protocol", Type::TEXT, "tcp or udp",
     [](Listener const& found) -> Value { return known(found.protocol); }},
    {"Address", Type::TEXT, "The address that it listens on; 0.0.0.0 and :: are all",
     [](Listener const& found) -> Value { return known(found.address); }},
    {"Port", Type::NUMBER, "The port",
     [](Listener const& found) -> Value { return std::to_string(found.port); }},
    {"Process", Type::TEXT, "The names of the processes that have it",
     [](Listener const& found) -> Value { return known(found.process); }},
    {"User", Type::TEXT, "The user that it was made by",
     [](Listener const& found) -> Value { return known(found.user); }},
}};

} // namespace

Facts<Listener> listenerFacts() { return FACTS; }

ListenerExplorer::ListenerExplorer(std::string root)
    : TimedExplorer(INTERVAL), m_root(std::move(root))
{
}

DiscoveryStatus ListenerExplorer::run(Authority const& authority, Subject const& subject,
                                      CollectionAttributes const& attributes,
                                      DiscoveryFactory const& factory)
{
  DiscoveredItems items(*this);
  for (auto const& found : collectListeners(m_root))
    items.addItem(nameOf(found), listenerFacts(), found);
  return storeWithFilters(factory, subject, authority, attributes, items.finish(),
                          filterDocument(listenerFacts()), "ListenerExplorer::explore");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
