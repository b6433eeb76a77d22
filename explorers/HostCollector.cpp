#include "explorers/HostCollector.h"

#include "explorers/FactFiles.h"

#include <sys/utsname.h>

#include <map>
#include <set>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

using Values = std::map<std::string, std::string>;

// The first value of each key counts.
Values readValues(std::string const& root, std::string const& path, char separator)
{
  Values values;
  if (auto const text = readFacts(root, path))
    for (auto& [key, value] : parsePairs(*text, separator))
      values.emplace(std::move(key), std::move(value));
  return values;
}

std::string valueOf(Values const& values, char const* key)
{
  auto const found = values.find(key);
  return found == values.end() ? "" : found->second;
}

// A value as a shell would read it.
std::string unquoted(std::string const& value)
{
  std::string plain;
  char quote = 0;
  for (std::size_t at = 0; at < value.size(); ++at)
  {
    char const c = value[at];
    if (quote == 0 && (c == '"' || c == '\''))
      quote = c;
    else if (c == quote)
      quote = 0;
    else if (c == '\\' && quote != '\'' && at + 1 < value.size())
      plain += value[++at];
    else
      plain += c;
  }
  return plain;
}

void collectSystem(std::string const& root, HostFacts& facts)
{
  // The distributor's own file stands in where the administrator has removed
  // the link in etc.
  auto values = readValues(root, "etc/os-release", '=');
  if (values.empty())
    values = readValues(root, "usr/lib/os-release", '=');
  facts.osId = unquoted(valueOf(values, "ID"));
  facts.osVersion = unquoted(valueOf(values, "VERSION_ID"));
  facts.osName = unquoted(valueOf(values, "PRETTY_NAME"));
  if (facts.osName.empty())
    facts.osName = unquoted(valueOf(values, "NAME"));
}

void collectKernel(std::string const& root, HostFacts& facts)
{
  facts.hostName = readFact(root, "proc/sys/kernel/hostname").value_or("");
  facts.kernelName = readFact(root, "proc/sys/kernel/ostype").value_or("");
  facts.kernelRelease = readFact(root, "proc/sys/kernel/osrelease").value_or("");
  facts.kernelVersion = readFact(root, "proc/sys/kernel/version").value_or("");
  facts.architecture = readFact(root, "proc/sys/kernel/arch").value_or("");

  // Kernels before 6.1 have no such file.
  utsname system = {};
  if (facts.architecture.empty() && root == "/" && uname(&system) == 0)
    facts.architecture = system.machine;
}

// /proc/stat has the same lines on every architecture, where cpuinfo differs.
void collectProcessors(std::string const& root, HostFacts& facts)
{
  std::uint64_t processors = 0;
  for (auto const& [name, value] : parsePairs(readFacts(root, "proc/stat").value_or(""), ' '))
  {
    if (name.rfind("cpu", 0) == 0 && parseNumber(name.substr(3)))
      ++processors;
    else if (name == "btime")
    {
      if (auto const seconds = parseNumber(value);
          seconds && *seconds <= static_cast<std::uint64_t>(OzfObjTime::max().seconds()))
        facts.bootTime = OzfObjTime(static_cast<std::int64_t>(*seconds));
    }
  }
  if (processors != 0)
    facts.processors = processors;

  auto const values = readValues(root, "proc/cpuinfo", ':');
  facts.processorModel = valueOf(values, "model name");
}

// Counted by what the kernel says of each processor in use: which others have its
// package and its core. Numbers of cores are unique within a package at best.
void collectTopology(std::string const& root, HostFacts& facts)
{
  std::set<std::string> packages;
  std::set<std::string> cores;
  std::string const folder = "sys/devices/system/cpu";
  for (std::string const& name : namesIn(root, folder))
  {
    if (!name.starts_with("cpu") || !parseNumber(std::string_view(name).substr(3)))
      continue;
    std::string const topology = folder + '/' + name + "/topology/";
    if (readNumber(root, topology + "physical_package_id")) // -1: not known
      packages.insert(*readFact(root, topology + "physical_package_id"));
    // Kernels before 5.3 have the second name alone.
    for (char const* const list : {"core_cpus_list", "thread_siblings_list"})
      if (auto const sharing = readFact(root, topology + list))
      {
        cores.insert(*sharing);
        break;
      }
  }
  if (!packages.empty())
    facts.sockets = packages.size();
  if (!cores.empty())
    facts.cores = cores.size();
}

std::optional<std::uint64_t> kibibytes(Values const& values, char const* key)
{
  std::string const value = valueOf(values, key);
  if (!value.ends_with(" kB"))
    return std::nullopt;
  auto const number = parseNumber(trimmed(std::string_view(value).substr(0, value.size() - 3)));
  return number ? std::optional(saturatingProduct(*number, 1024)) : std::nullopt;
}

// The C library goes by the link alone. Where the file is a copy, what the
// distributor wrote down at the same time is all there is.
std::string timeZoneOf(std::string const& root)
{
  constexpr std::string_view FOLDER = "/zoneinfo/";
  if (auto const link = readLink(below(root, "etc/localtime")))
  {
    auto const at = link->find(FOLDER);
    return at == std::string::npos ? "" : link->substr(at + FOLDER.size());
  }
  return readFact(root, "etc/timezone").value_or("");
}

// Device trees end their texts with a NUL.
std::string firmwareText(std::string const& root, char const* dmi, char const* deviceTree)
{
  auto text = readFact(root, std::string("sys/class/dmi/id/") + dmi);
  if (!text && deviceTree != nullptr)
    text = readFact(root, std::string("proc/device-tree/") + deviceTree);
  return text ? text->substr(0, text->find('\0')) : "";
}

void collectFirmware(std::string const& root, Secrets secrets, HostFacts& facts)
{
  facts.vendor = firmwareText(root, "sys_vendor", nullptr);
  facts.product = firmwareText(root, "product_name", "model");
  facts.firmwareVendor = firmwareText(root, "bios_vendor", nullptr);
  facts.firmwareVersion = firmwareText(root, "bios_version", nullptr);
  if (secrets == Secrets::LeftOut)
    return;
  facts.serialNumber = firmwareText(root, "product_serial", "serial-number");
  facts.productUuid = firmwareText(root, "product_uuid", nullptr);
}

} // namespace

// An image that is to be installed often has the word "uninitialized" there, or
// nothing.
std::string readMachineId(std::string const& root)
{
  constexpr std::size_t LENGTH = 32;
  for (char const* const path : {"etc/machine-id", "var/lib/dbus/machine-id"})
    if (auto const text = readFact(root, path))
      if (text->size() == LENGTH &&
          text->find_first_not_of("0123456789abcdef") == std::string::npos &&
          text->find_first_not_of('0') != std::string::npos)
        return *text;
  return "";
}

HostFacts collectHost(std::string const& root, Secrets secrets)
{
  HostFacts facts;
  collectSystem(root, facts);
  collectKernel(root, facts);
  collectProcessors(root, facts);
  collectTopology(root, facts);
  collectFirmware(root, secrets, facts);
  facts.machineId = readMachineId(root);
  facts.bootId = readFact(root, "proc/sys/kernel/random/boot_id").value_or("");
  facts.timeZone = timeZoneOf(root);
  facts.virtualization = collectVirtualization(root);
  auto const memory = readValues(root, "proc/meminfo", ':');
  facts.memory = kibibytes(memory, "MemTotal");
  facts.swap = kibibytes(memory, "SwapTotal");
  return facts;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
