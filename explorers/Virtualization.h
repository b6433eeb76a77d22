// Whether a host is a virtual machine, and whether what runs here is a container.

#pragma once

#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Short lower-case names; "none" where there is proof of the contrary, "other"
// where it is one of a kind that is not known, empty when nothing is known.
struct Virtualization
{
  std::string machine;   // "kvm", "vmware", "microsoft", "xen"
  std::string container; // "docker", "lxc", "podman"
};

// From root/proc, root/sys and root/run; asks the processor as well when root
// is "/".
Virtualization collectVirtualization(std::string const& root);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
