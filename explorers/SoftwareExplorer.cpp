#include "explorers/SoftwareExplorer.h"

#include "discovery/ExplorerPayload.h"

#include <array>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

using Type = OzfQuery::Type;
using Value = std::optional<std::string>;

constexpr std::array<Fact<Software>, 3> SOFTWARE_FACTS = {{
    {"Managers", Type::TEXT, "The package managers that have a database here",
     [](Software const& software) -> Value { return known(software.managers); }},
    {"Packages", Type::NUMBER, "The number of packages",
     [](Software const& software) -> Value
     {
       return software.managers.empty() ? std::nullopt
                                        : Value(std::to_string(software.packages.size()));
     }},
    {"Complete", Type::BOOLEAN, "Whether no package was left out",
     [](Software const& software) -> Value {
       return software.managers.empty() ? std::nullopt : known(std::optional(software.complete));
     }},
}};

constexpr std::array<Fact<Package>, 6> PACKAGE_FACTS = {{
    {"Package", Type::TEXT, "The name of the package",
     [](Package const& package) -> Value { return known(package.name); }},
    {"Manager", Type::TEXT, "The package manager: dpkg or rpm",
     [](Package const& package) -> Value { return known(package.manager); }},
    {"Version", Type::TEXT, "The version of the package",
     [](Package const& package) -> Value { return known(package.version); }},
    {"Architecture", Type::TEXT, "The architecture that it was made for",
     [](Package const& package) -> Value { return known(package.architecture); }},
    {"Size", Type::SIZE, "The space that its files take",
     [](Package const& package) -> Value { return known(package.size); }},
    {"State", Type::TEXT, "The state of a package that is not in order",
     [](Package const& package) -> Value { return known(package.state); }},
}};

std::string filterData()
{
  AutoDereference<OzfQuery> const query = describeFacts(softwareFacts());
  query->merge(*describeFacts(packageFacts()));
  return filterDocument(*query);
}

} // namespace

Facts<Software> softwareFacts() { return SOFTWARE_FACTS; }
Facts<Package> packageFacts() { return PACKAGE_FACTS; }

SoftwareExplorer::SoftwareExplorer(std::string root, QueryRpm rpm)
    : TimedExplorer(INTERVAL), m_root(std::move(root)), m_rpm(std::move(rpm))
{
}

DiscoveryStatus SoftwareExplorer::run(Authority const& authority, Subject const& subject,
                                      CollectionAttributes const& attributes,
                                      DiscoveryFactory const& factory)
{
  Software const software = collectSoftware(m_root, m_rpm);
  DiscoveredItems items(*this);
  items.addItem(subject.getName().str(), softwareFacts(), software);
  for (auto const& package : software.packages)
    items.addItem(package.name, packageFacts(), package);
  return storeWithFilters(factory, subject, authority, attributes, items.finish(), filterData(),
                          "SoftwareExplorer::explore");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
