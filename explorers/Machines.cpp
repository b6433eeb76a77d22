#include "explorers/Machines.h"

#include "discovery/DiscoveryLog.h"

#include <algorithm>
#include <array>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

using Type = OzfQuery::Type;
using Value = std::optional<std::string>;

constexpr char SOURCE[] = "Machines";
constexpr char OPERATION[] = "MachineWatch::look";
constexpr char PREFIX[] = "machine.";

// Anybody who may store can invent machines.
constexpr std::size_t MOST_HOSTS = 50'000;
constexpr std::size_t MOST_MACHINES = 8; // of a host

constexpr std::array<Fact<HostFacts>, 6> FACTS = {{
    {"MachineId", Type::TEXT, "The identifier that the system was given when it was installed",
     [](HostFacts const& host) -> Value { return known(host.machineId); }},
    {"HostName", Type::TEXT, "The name that the kernel has for the host",
     [](HostFacts const& host) -> Value { return known(host.hostName); }},
    {"BootId", Type::TEXT, "The identifier of its last start",
     [](HostFacts const& host) -> Value { return known(host.bootId); }},
    {"Vendor", Type::TEXT, "The vendor of the machine",
     [](HostFacts const& host) -> Value { return known(host.vendor); }},
    {"Product", Type::TEXT, "The model of the machine",
     [](HostFacts const& host) -> Value { return known(host.product); }},
    {"Virtualization", Type::TEXT, "The hypervisor below the host, or none",
     [](HostFacts const& host) -> Value { return known(host.virtualization.machine); }},
}};

} // namespace

std::string machineAuthority(std::string const& machineId) { return PREFIX + machineId; }

Facts<HostFacts> machineFacts() { return FACTS; }

std::vector<StoredMachine> readMachines(DiscoveryRepository& repository)
{
  std::vector<StoredMachine> machines;
  AutoDereference<DiscoveryIterator> const stored(
      repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", machineAuthority("*"), AT_TQUCLIENT));
  if (!stored)
    return machines;
  while (AutoDereference<Discovery> const record{stored->getNext()})
  {
    std::string const authority = record->getAuthority()->getName().str();
    if (authority.starts_with(PREFIX) && record->getAttributes() != nullptr)
      machines.push_back({record->getSubject()->getName().str(),
                          authority.substr(sizeof PREFIX - 1),
                          record->getAttributes()->getExpiresTime()});
  }
  return machines;
}

void MachineWatch::noteStored(Host& host, StoredMachine const& stored)
{
  auto known = host.machines.find(stored.machineId);
  if (known == host.machines.end())
  {
    if (host.machines.size() >= MOST_MACHINES)
      return;
    // Which of those that the first look finds came first is not known.
    bool const another =
        std::any_of(host.machines.begin(), host.machines.end(),
                    [this](auto const& each) { return each.second.firstSeen != m_look; });
    if (another)
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "The machine identifier of "
                  << stored.subject << " has changed from " << host.last << " to "
                  << stored.machineId
                  << ": it was installed anew or replaced, or a second host has its name");
    known =
        host.machines.emplace(stored.machineId, Machine{stored.expires, m_look, m_look, 0}).first;
    host.last = stored.machineId;
  }
  Machine& machine = known->second;
  if (machine.expires != stored.expires)
    machine.renewed = m_look;
  machine.expires = stored.expires;
  machine.stored = m_look;
}

// Empty when no two of those that are stored have each reported after the other was
// seen.
std::string MachineWatch::clonesOf(Host const& host) const
{
  std::string text;
  for (auto const& [id, machine] : host.machines)
  {
    bool const isOne =
        std::any_of(host.machines.begin(), host.machines.end(),
                    [&, &self = machine](auto const& each)
                    {
                      Machine const& other = each.second;
                      return &other != &self && self.stored == m_look && other.stored == m_look &&
                             self.renewed > other.firstSeen && other.renewed > self.firstSeen;
                    });
    if (isOne)
      text += (text.empty() ? "" : " ") + id;
  }
  return text;
}

// All that are not stored any more; of several the last, with which the next is compared.
void MachineWatch::dropGone(Host& host) const
{
  auto const isStored = [this](auto const& each) { return each.second.stored == m_look; };
  auto const there = std::find_if(host.machines.begin(), host.machines.end(), isStored);
  if (there != host.machines.end() && !isStored(*host.machines.find(host.last)))
    host.last = there->first;
  std::erase_if(host.machines,
                [&](auto const& each) { return !isStored(each) && each.first != host.last; });
}

// A host of which nothing is stored any more is remembered, for when it comes back with
// another identifier, as long as there is room.
void MachineWatch::forget()
{
  if (m_hosts.size() > MOST_HOSTS)
    std::erase_if(m_hosts,
                  [this](auto const& host)
                  {
                    return std::none_of(host.second.machines.begin(), host.second.machines.end(),
                                        [this](auto const& each)
                                        { return each.second.stored == m_look; });
                  });
}

std::vector<Clone> MachineWatch::look(std::vector<StoredMachine> const& stored,
                                      OzfObjTime const& now)
{
  ++m_look;
  for (StoredMachine const& machine : stored)
    if (m_hosts.size() < MOST_HOSTS || m_hosts.count(machine.subject) != 0)
      noteStored(m_hosts[machine.subject], machine);

  std::vector<Clone> clones;
  for (auto& [name, host] : m_hosts)
  {
    std::string const found = clonesOf(host);
    if (found != host.told && !found.empty())
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Several hosts report as " << name << ", with the machine identifiers " << found
                                         << ": each replaces what the others have found");
      host.since = now;
    }
    else if (found != host.told)
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "One host alone reports as " << name << " again");
    host.told = found;
    if (!found.empty())
      clones.push_back({name, found, host.since});
    dropGone(host);
  }
  forget();
  return clones;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
