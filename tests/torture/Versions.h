// Discoveries that tell which writing of them they are, in the metadata as well
// as in the payload, and that show whether they are whole.

#pragma once

#include "discovery/DiscDB.h"
#include "discovery/DiscDBDiscovery.h"
#include "tests/support/SealedPayload.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace tqtorture
{

namespace ozf = Quillon::Tessarine::Ozf;
namespace svc = Quillon::Tessarine::Ozf::DiscoverySvc;

inline constexpr char AUTHORITY[] = "torture";

struct Version
{
  std::uint64_t number;
  std::size_t signatureSize = 0; // at least; makes the metadata longer
  std::size_t payloadSize = 700;
  unsigned priority = 1;
  long validSeconds = 3600;
};

inline std::string fileOf(std::string const& subject, char const* extension)
{
  return std::to_string(svc::AT_TQUCLIENT) + " " + AUTHORITY + " " + subject + "." + extension;
}

// The signature names the version and the digest of the payload that belongs to
// it.
inline std::string signatureOf(std::string const& subject, Version const& version)
{
  std::string const digest = std::to_string(
      tqtest::sealOf(tqtest::sealedPayload(subject, version.number, version.payloadSize)));
  std::string text = std::to_string(version.number) + ":" + digest + ":";
  text.resize(std::max(text.size(), version.signatureSize), 's');
  return text;
}

// Opens the process's database for it; null, with the status, when that fails.
inline ozf::AutoDereference<svc::Discovery>
openVersion(std::string const& subject, Version const& version, svc::DiscoveryStatus& status)
{
  ozf::AutoDereference<svc::Discovery> discovery(
      svc::getDiscoveryDBDatabase()->newDiscovery(svc::DQ_DISCOVERY_DATA));
  discovery->setAuthority(new svc::Authority(AUTHORITY, svc::AT_TQUCLIENT));
  discovery->setSubject(new svc::Subject(subject));
  auto* const attributes = new svc::CollectionAttributes(
      svc::CT_POINT_IN_TIME, svc::CS_CENTRALREPOSITORY, ozf::OzfObjTime(1000),
      ozf::OzfObjTime(version.validSeconds), version.priority);
  attributes->setSignature(ozf::OzfString(signatureOf(subject, version)));
  discovery->setAttributes(attributes);
  status = discovery->open(svc::OM_UPDATE, "");
  return status == svc::DS_SUCCESS ? discovery : nullptr;
}

// In two pieces.
inline bool writePayload(svc::Discovery& discovery, std::string const& subject,
                         Version const& version)
{
  std::string const payload = tqtest::sealedPayload(subject, version.number, version.payloadSize);
  std::size_t const half = payload.size() / 2;
  svc::CollectionData const& data = *discovery.getCollectionData();
  return data.writeCollection(half, payload.data()) != 0 &&
         data.writeCollection(payload.size() - half, payload.data() + half) != 0;
}

inline svc::DiscoveryStatus storeVersion(std::string const& subject, Version const& version)
{
  svc::DiscoveryStatus status = svc::DS_SUCCESS;
  ozf::AutoDereference<svc::Discovery> const discovery = openVersion(subject, version, status);
  if (!discovery)
    return status;
  if (!writePayload(*discovery, subject, version))
    return svc::DS_OPEN_FAILED;
  return discovery->persist();
}

} // namespace tqtorture
