#include "explorers/NetworkExplorer.h"

#include "discovery/ExplorerPayload.h"

#include <array>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

using Type = OzfQuery::Type;
using Value = std::optional<std::string>;

Value joined(std::vector<std::string> const& words)
{
  std::string text;
  for (auto const& word : words)
    text += (text.empty() ? "" : " ") + word;
  return known(text);
}

constexpr char KINDS[] = "host, or what the interface is: ethernet, bridge, loopback and so on";

constexpr std::array<Fact<NameService>, 3> NAME_SERVICE_FACTS = {{
    {"Kind", Type::TEXT, KINDS, [](NameService const&) -> Value { return "host"; }},
    {"NameServers", Type::TEXT, "The addresses of the name servers",
     [](NameService const& names) -> Value { return joined(names.servers); }},
    {"SearchDomains", Type::TEXT, "The domains in which short names are looked for",
     [](NameService const& names) -> Value { return joined(names.domains); }},
}};

constexpr std::array<Fact<NetworkInterface>, 9> INTERFACE_FACTS = {{
    {"Interface", Type::TEXT, "The name of the interface",
     [](NetworkInterface const& found) -> Value { return known(found.name); }},
    {"Kind", Type::TEXT, KINDS,
     [](NetworkInterface const& found) -> Value { return known(found.kind); }},
    {"State", Type::TEXT, "Whether it is up, down or something between",
     [](NetworkInterface const& found) -> Value { return known(found.state); }},
    {"Mac", Type::TEXT, "The hardware address",
     [](NetworkInterface const& found) -> Value { return known(found.mac); }},
    {"Mtu", Type::NUMBER, "The largest packet",
     [](NetworkInterface const& found) -> Value { return known(found.mtu); }, "bytes"},
    {"Speed", Type::NUMBER, "The speed of the link",
     [](NetworkInterface const& found) -> Value { return known(found.speed); }, "Mb/s"},
    {"Master", Type::TEXT, "The bridge or bond that it is part of",
     [](NetworkInterface const& found) -> Value { return known(found.master); }},
    {"Addresses", Type::TEXT, "The addresses with the lengths of their prefixes",
     [](NetworkInterface const& found) -> Value { return joined(found.addresses); }},
    {"Gateways", Type::TEXT, "The gateways of the default routes through it",
     [](NetworkInterface const& found) -> Value { return joined(found.gateways); }},
}};

std::string filterData()
{
  AutoDereference<OzfQuery> const query = describeFacts(nameServiceFacts());
  query->merge(*describeFacts(interfaceFacts()));
  return filterDocument(*query);
}

} // namespace

Facts<NameService> nameServiceFacts() { return NAME_SERVICE_FACTS; }
Facts<NetworkInterface> interfaceFacts() { return INTERFACE_FACTS; }

NetworkExplorer::NetworkExplorer(std::string root, ReadAddresses addresses)
    : TimedExplorer(INTERVAL), m_root(std::move(root)), m_addresses(std::move(addresses))
{
}

DiscoveryStatus NetworkExplorer::run(Authority const& authority, Subject const& subject,
                                     CollectionAttributes const& attributes,
                                     DiscoveryFactory const& factory)
{
  Network const network = collectNetwork(m_root, m_addresses);
  DiscoveredItems items(*this);
  items.addItem(subject.getName().str(), nameServiceFacts(), network.names);
  for (auto const& found : network.interfaces)
    items.addItem(found.name, interfaceFacts(), found);
  return storeWithFilters(factory, subject, authority, attributes, items.finish(), filterData(),
                          "NetworkExplorer::explore");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
