#include "explorers/Virtualization.h"

#include "explorers/FactFiles.h"

#include <sys/stat.h>

#include <array>
#include <cstring>
#include <string_view>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char NONE[] = "none";
constexpr char OTHER[] = "other";

struct Signature
{
  std::string_view text;
  char const* name;
};

// How the firmware of virtual machines calls its product or its maker: the
// beginnings of what stands there.
constexpr std::array<Signature, 18> FIRMWARE = {{{"KVM", "kvm"},
                                                 {"OpenStack", "kvm"},
                                                 {"KubeVirt", "kvm"},
                                                 {"Google Compute Engine", "google"},
                                                 {"Amazon EC2", "amazon"},
                                                 {"QEMU", "qemu"},
                                                 {"VMware", "vmware"},
                                                 {"VMW", "vmware"},
                                                 {"VirtualBox", "virtualbox"},
                                                 {"innotek GmbH", "virtualbox"},
                                                 {"Xen", "xen"},
                                                 {"HVM domU", "xen"},
                                                 {"Bochs", "bochs"},
                                                 {"Parallels", "parallels"},
                                                 {"BHYVE", "bhyve"},
                                                 {"Hyper-V", "microsoft"},
                                                 {"Virtual Machine", "microsoft"},
                                                 {"Apple Virtualization", "apple"}}};

// What a hypervisor says of itself when the processor is asked.
constexpr std::array<Signature, 9> PROCESSOR = {{{"KVMKVMKVM", "kvm"},
                                                 {"Linux KVM Hv", "kvm"},
                                                 {"TCGTCGTCGTCG", "qemu"},
                                                 {"VMwareVMware", "vmware"},
                                                 {"Microsoft Hv", "microsoft"},
                                                 {"XenVMMXenVMM", "xen"},
                                                 {"bhyve bhyve", "bhyve"},
                                                 {"VBoxVBoxVBox", "virtualbox"},
                                                 {"prl hyperv", "parallels"}}};

template <std::size_t N>
std::string nameOf(std::array<Signature, N> const& signatures, std::string_view text)
{
  for (auto const& signature : signatures)
    if (text.starts_with(signature.text))
      return signature.name;
  return "";
}

bool exists(std::string const& root, char const* path)
{
  struct stat status = {};
  return stat(below(root, path).c_str(), &status) == 0;
}

std::string byFirmware(std::string const& root)
{
  for (char const* const file : {"product_name", "sys_vendor", "board_vendor", "bios_vendor"})
    if (auto const text = readFact(root, std::string("sys/class/dmi/id/") + file))
      if (auto name = nameOf(FIRMWARE, *text); !name.empty())
        return name;
  return "";
}

std::string byProcessor([[maybe_unused]] std::string const& root)
{
#if defined(__x86_64__) || defined(__i386__)
  constexpr unsigned LEAF = 0x40000000;
  if (root != "/")
    return "";
  std::array<unsigned, 4> registers = {};
  __cpuid(LEAF, registers[0], registers[1], registers[2], registers[3]);
  std::array<char, 12> text;
  std::memcpy(text.data(), &registers[1], text.size());
  return nameOf(PROCESSOR, std::string_view(text.data(), text.size()));
#else
  return "";
#endif
}

// Absent where the kernel does not say which features processors have: not
// every architecture has the one that tells of a hypervisor.
std::optional<bool> hasHypervisorFlag(std::string const& root)
{
  for (auto const& [key, value] : parsePairs(readFacts(root, "proc/cpuinfo").value_or(""), ':'))
    if (key == "flags")
      return (' ' + value + ' ').find(" hypervisor ") != std::string::npos;
  return std::nullopt;
}

std::string byDeviceTree(std::string const& root)
{
  auto const compatible = readFact(root, "proc/device-tree/hypervisor/compatible");
  if (!compatible)
    return "";
  for (char const* const known : {"kvm", "xen", "vmware"})
    if (compatible->find(known) != std::string::npos)
      return known;
  return OTHER;
}

std::string machineOf(std::string const& root)
{
  // The domain that controls the others stands beside the hypervisor, on the
  // machine itself.
  if (readFact(root, "proc/xen/capabilities").value_or("").find("control_d") != std::string::npos)
    return NONE;
  auto const flag = hasHypervisorFlag(root);
  if (readFact(root, "sys/hypervisor/type") == "xen")
    return "xen";
  // A provider's own machine has the same product names as those it lets others
  // share, and no hypervisor.
  if (flag == false)
    return NONE;
  std::string const firmware = byFirmware(root);
  if (!firmware.empty() && firmware != "qemu")
    return firmware;
  // Both an emulated machine and one of the kernel's hypervisor are made by the
  // same program.
  std::string const processor = byProcessor(root);
  if (!processor.empty())
    return processor;
  if (!firmware.empty())
    return firmware;
  std::string const tree = byDeviceTree(root);
  return tree.empty() && flag == true ? OTHER : tree;
}

std::string containerOf(std::string const& root)
{
  // The images of virtual machines are also made from those of containers, with
  // the marks of these in them. The first name space of processes has a number
  // that the kernel gives to it alone, and no container.
  constexpr char FIRST_NAME_SPACE[] = "pid:[4026531836]";
  auto const space = readLink(below(root, "proc/self/ns/pid"));
  if (space == FIRST_NAME_SPACE)
    return NONE;
  for (char const* const path : {"run/systemd/container", "run/host/container-manager"})
    if (auto manager = readFact(root, path))
      return *manager;
  if (exists(root, "run/.containerenv"))
    return "podman";
  if (exists(root, ".dockerenv"))
    return "docker";
  return space ? OTHER : "";
}

} // namespace

Virtualization collectVirtualization(std::string const& root)
{
  return {machineOf(root), containerOf(root)};
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
