#include "ozf/orb/ObjectKey.h"

#include "ozf/orb/Corba.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>

namespace Quillon::Tessarine::Ozf
{

std::string makeObjectKey()
{
  static std::atomic<std::uint64_t> counter{0};
  std::uint64_t parts[] = {++counter, 0};
  if (::getentropy(&parts[1], sizeof parts[1]) != 0)
    throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
  std::string key(sizeof parts, '\0');
  std::memcpy(key.data(), parts, sizeof parts);
  return key;
}

} // namespace Quillon::Tessarine::Ozf
