// Making and looking at discoveries of a database directory, for the helper
// programs and for tests beside them.

#pragma once

#include "discovery/DiscDB.h"
#include "discovery/DiscDBDiscovery.h"
#include "tests/support/SealedPayload.h"

#include <cstdint>
#include <string>

namespace tqtest
{

namespace stored
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

inline constexpr char AUTHORITY[] = "writer";

// Writes a sealed payload under the subject into the process's database. The
// signature in the metadata is the payload's number.
inline DiscoveryStatus write(std::string const& subject, std::uint64_t number, std::size_t size,
                             unsigned priority = 1, long validSeconds = 3600)
{
  AutoDereference<Discovery> const discovery(
      getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
  discovery->setAuthority(new Authority(AUTHORITY, AT_TQUCLIENT));
  discovery->setSubject(new Subject(subject));
  auto* const attributes =
      new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime::now(),
                               OzfObjTime(validSeconds), priority);
  attributes->setSignature(OzfString(std::to_string(number)));
  discovery->setAttributes(attributes);
  if (DiscoveryStatus const status = discovery->open(OM_UPDATE, ""); status != DS_SUCCESS)
    return status;
  std::string const payload = sealedPayload(subject, number, size);
  // In pieces, as explorers write.
  constexpr std::size_t PIECE = 700;
  for (std::size_t done = 0; done < payload.size(); done += PIECE)
  {
    std::string const piece = payload.substr(done, PIECE);
    if (discovery->getCollectionData()->writeCollection(piece.size(), piece.data()) == 0)
      return DS_OPEN_FAILED;
  }
  return discovery->persist();
}

inline std::string metadataFile(std::string const& subject)
{
  return std::to_string(AT_TQUCLIENT) + ' ' + AUTHORITY + ' ' + subject + ".xml";
}
inline std::string payloadFile(std::string const& subject)
{
  return std::to_string(AT_TQUCLIENT) + ' ' + AUTHORITY + ' ' + subject + ".dat";
}

} // namespace stored
} // namespace tqtest
