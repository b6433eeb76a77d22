// What kind of machine this is.

#pragma once

#include "ozf/base/OzfObjTime.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Empty and absent members are not known.
struct HostFacts
{
  std::string hostName; // as the kernel has it
  std::string osName;   // "Debian GNU/Linux 12 (bookworm)"
  std::string osId;     // "debian"
  std::string osVersion;
  std::string kernelName; // "Linux"
  std::string kernelRelease;
  std::string kernelVersion;
  std::string architecture;
  std::string processorModel;
  std::optional<std::uint64_t> processors; // in use by the kernel
  std::optional<std::uint64_t> memory;     // bytes
  std::optional<std::uint64_t> swap;       // bytes
  std::optional<OzfObjTime> bootTime;
};

// From root/proc and root/etc; what is missing or damaged there is left out.
HostFacts collectHost(std::string const& root);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
