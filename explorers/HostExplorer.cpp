#include "explorers/HostExplorer.h"

#include "discovery/ExplorerPayload.h"
#include "explorers/Machines.h"
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

constexpr std::array<Fact<HostFacts>, 26> FACTS = {{
    {"HostName", Type::TEXT, "The name that the kernel has for the host",
     [](HostFacts const& host) -> Value { return known(host.hostName); }},
    {"MachineId", Type::TEXT, "The identifier that the system was given when it was installed",
     [](HostFacts const& host) -> Value { return known(host.machineId); }},
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
    {"ProcessorSockets", Type::NUMBER, "The number of sockets that those are in",
     [](HostFacts const& host) -> Value { return known(host.sockets); }},
    {"ProcessorCores", Type::NUMBER, "The number of cores in all sockets",
     [](HostFacts const& host) -> Value { return known(host.cores); }},
    {"ProcessorModel", Type::TEXT, "The model of the first processor",
     [](HostFacts const& host) -> Value { return known(host.processorModel); }},
    {"Memory", Type::SIZE, "The size of the main memory",
     [](HostFacts const& host) -> Value { return known(host.memory); }},
    {"Swap", Type::SIZE, "The size of the swap space",
     [](HostFacts const& host) -> Value { return known(host.swap); }},
    {"BootTime", Type::TIME, "When the host was started", bootTime},
    {"BootId", Type::TEXT, "The identifier of that start",
     [](HostFacts const& host) -> Value { return known(host.bootId); }},
    {"TimeZone", Type::TEXT, "The time zone of the system",
     [](HostFacts const& host) -> Value { return known(host.timeZone); }},
    {"Virtualization", Type::TEXT, "The hypervisor below the host, or none",
     [](HostFacts const& host) -> Value { return known(host.virtualization.machine); }},
    {"Container", Type::TEXT, "What manages the container that the service is in, or none",
     [](HostFacts const& host) -> Value { return known(host.virtualization.container); }},
    {"Vendor", Type::TEXT, "The vendor of the machine",
     [](HostFacts const& host) -> Value { return known(host.vendor); }},
    {"Product", Type::TEXT, "The model of the machine",
     [](HostFacts const& host) -> Value { return known(host.product); }},
    {"FirmwareVendor", Type::TEXT, "The vendor of the firmware",
     [](HostFacts const& host) -> Value { return known(host.firmwareVendor); }},
    {"FirmwareVersion", Type::TEXT, "The version of the firmware",
     [](HostFacts const& host) -> Value { return known(host.firmwareVersion); }},
    {"SerialNumber", Type::TEXT, "The serial number of the machine, where the host is to tell it",
     [](HostFacts const& host) -> Value { return known(host.serialNumber); }},
    {"ProductUuid", Type::TEXT, "The identifier of the machine, where the host is to tell it",
     [](HostFacts const& host) -> Value { return known(host.productUuid); }},
}};

} // namespace

Facts<HostFacts> hostFacts() { return FACTS; }

HostExplorer::HostExplorer(std::string root, Secrets secrets)
    : TimedExplorer(INTERVAL), m_root(std::move(root)), m_secrets(secrets)
{
}

DiscoveryStatus HostExplorer::run(Authority const& authority, Subject const& subject,
                                  CollectionAttributes const& attributes,
                                  DiscoveryFactory const& factory)
{
  constexpr char const* OPERATION = "HostExplorer::explore";
  std::string const name = subject.getName().str();
  HostFacts const host = collectHost(m_root, m_secrets);
  DiscoveredItems items(*this);
  items.addItem(name, hostFacts(), host);
  auto const result = storeWithFilters(factory, subject, authority, attributes, items.finish(),
                                       filterDocument(hostFacts()), OPERATION);
  if (host.machineId.empty())
    return result;
  DiscoveredItems machine(*this);
  machine.addItem(name, machineFacts(), host);
  auto const told = store(factory, DQ_DISCOVERY_DATA, subject,
                          Authority(machineAuthority(host.machineId), authority.getType()),
                          attributes, machine.finish(), OPERATION);
  return result != DS_SUCCESS ? result : told;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
