// What kind of machine this is.

#pragma once

#include "explorers/Virtualization.h"
#include "ozf/base/OzfObjTime.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Empty and absent members are not known.
struct HostFacts
{
  std::string hostName;  // as the kernel has it
  std::string machineId; // 32 hexadecimal digits, made when the system was installed
  std::string osName;    // "Debian GNU/Linux 12 (bookworm)"
  std::string osId;      // "debian"
  std::string osVersion;
  std::string kernelName; // "Linux"
  std::string kernelRelease;
  std::string kernelVersion;
  std::string architecture;
  std::string processorModel;
  std::optional<std::uint64_t> processors; // in use by the kernel
  std::optional<std::uint64_t> sockets;    // of those processors
  std::optional<std::uint64_t> cores;      // in all sockets
  std::optional<std::uint64_t> memory;     // bytes
  std::optional<std::uint64_t> swap;       // bytes
  std::optional<OzfObjTime> bootTime;
  std::string bootId;   // made anew at every start
  std::string timeZone; // "Europe/Berlin"
  Virtualization virtualization;
  std::string vendor; // of the machine, as its firmware has it
  std::string product;
  std::string firmwareVendor;
  std::string firmwareVersion;
  std::string serialNumber; // this and the next: only when secrets are asked for
  std::string productUuid;
};

enum class Secrets
{
  LeftOut,
  Told // what identifies the machine to its maker, and few may read
};

// From root/proc, root/sys and root/etc; what is missing, damaged or not for
// this process to read is left out.
HostFacts collectHost(std::string const& root, Secrets secrets = Secrets::LeftOut);

// The machine identifier alone; empty when there is none.
std::string readMachineId(std::string const& root);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
