// Looking at a database directory without a service.
//
// Takes the same locks as every other reader and changes nothing: expired
// discoveries are shown, not deleted.

#pragma once

#include "ozf/base/OzfObjTime.h"

#include <DiscoveryTypesC.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tqdiscoctl
{

// One discovery as its files tell it.
struct StoredDiscovery
{
  std::string subject;
  std::string authority;
  Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType type{};
  Quillon::Tessarine::Ozf::DiscoverySvc::CollectionType collectionType{};
  Quillon::Tessarine::Ozf::DiscoverySvc::CollectionStorage storage{};
  std::uint32_t priority = 0;
  Quillon::Tessarine::Ozf::OzfObjTime discoveryTime;
  Quillon::Tessarine::Ozf::OzfObjTime expiresTime;
  std::uint64_t payloadBytes = 0;
  std::string metadataFile; // names within the directory
  std::string payloadFile;
};

// A file that is not as it should be.
struct FileProblem
{
  std::string file;
  std::string reason;
};

struct DatabaseContents
{
  std::vector<StoredDiscovery> discoveries; // by subject, authority and type
  std::vector<FileProblem> problems;        // by file name
  std::vector<std::string> temporaryFiles;  // payloads being written, or left over
};

// Reads the whole directory; with payloads also what is in the payload files, one
// at a time, which are to be XML. Returns 0, or the errno value when the directory
// itself cannot be read.
int scanDatabase(std::string const& directory, DatabaseContents& contents, bool payloads = false);

// Reads the payload of a discovery of the directory under its metadata's lock.
// False with the reason when it cannot be read.
bool readPayload(std::string const& directory, StoredDiscovery const& discovery,
                 std::string& payload, std::string& reason);

} // namespace tqdiscoctl
