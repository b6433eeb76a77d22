#include "explorers/HostExplorer.h"

#include "explorers/Payload.h"
#include "ozf/base/MetadataConverter.h"

#include <array>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

using Type = OzfQuery::Type;
using Value = std::optional<std::string>;

Value bootTime(HostFacts const& host)
{
  std::string text;
  if (!host.bootTime || !MetadataConverter::convert(*host.bootTime, text, false))
    return std::nullopt;
  return text;
}

constexpr std::array<Fact<HostFacts>, 13> FACTS = {{
    {"HostName", Type::TEXT, "The name that the kernel has for the host",
     [](HostFacts const& host) -> Value { return known(host.hostName); }},
    {"OsName", Type::TEXT, "The operating system, as it presents itself",
     [](HostFacts const& host) -> Value { return known(host.osName); }},
    {"OsId", Type::TEXT, "The short name of the operating system",
     [](HostFacts const& host) -> Value { return known(host.osId); }},
    {"OsVersion", Type::TEXT, "The version of the operating system",
     [](HostFacts const& host) -> Value { return known(host.osVersion); }},
    {"KernelName", Type::TEXT, "The name of the kernel",
     [](HostFacts const& host) -> Value { return known(host.kernelName); }},
    {"KernelRelease", Type::TEXT, "The release of the kernel",
     [](HostFacts const& host) -> Value { return known(host.kernelRelease); }},
    {"KernelVersion", Type::TEXT, "The build of the kernel",
     [](HostFacts const& host) -> Value { return known(host.kernelVersion); }},
    {"Architecture", Type::TEXT, "The processor architecture",
     [](HostFacts const& host) -> Value { return known(host.architecture); }},
    {"Processors", Type::NUMBER, "The number of processors in use",
     [](HostFacts const& host) -> Value { return known(host.processors); }},
    {"ProcessorModel", Type::TEXT, "The model of the first processor",
     [](HostFacts const& host) -> Value { return known(host.processorModel); }},
    {"Memory", Type::SIZE, "The size of the main memory",
     [](HostFacts const& host) -> Value { return known(host.memory); }},
    {"Swap", Type::SIZE, "The size of the swap space",
     [](HostFacts const& host) -> Value { return known(host.swap); }},
    {"BootTime", Type::TIME, "When the host was started", bootTime},
}};

} // namespace

Facts<HostFacts> hostFacts() { return FACTS; }

HostExplorer::HostExplorer(std::string root) : TimedExplorer(INTERVAL), m_root(std::move(root)) {}

DiscoveryStatus HostExplorer::run(Authority const& authority, Subject const& subject,
                                  CollectionAttributes const& attributes,
                                  DiscoveryFactory const& factory)
{
  DiscoveredItems items(*this);
  items.addItem(subject.getName().str(), hostFacts(), collectHost(m_root));
  return store(factory, DQ_DISCOVERY_DATA, subject, authority, attributes, items.finish(),
               "HostExplorer::explore");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
