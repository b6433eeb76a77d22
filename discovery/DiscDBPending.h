// What a temporary payload file says about the discovery that it is written
// for, so that the next start can finish what a process that ended left half
// done. It is an extended attribute; file systems without them do without.

#pragma once

#include "discovery/Export.h"

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

struct PendingPayload
{
  std::string target;   // the payload file's name, without a directory
  off_t size = 0;       // of the whole payload
  std::string digest;   // of the metadata document
  std::string document; // empty when it is too long to be kept
};

// Line feeds behind a document do not count: a process that dies before it truncates
// the file leaves some.
std::string documentDigest(std::string_view document);

// Notes it with the open file. Where that cannot be done nothing happens: false.
bool markPending(int fd, std::string const& target, std::string const& document);

// What is noted with the open file, if that makes sense in all its parts: the
// target is then a name that a payload file may have.
std::optional<PendingPayload> readPending(int fd);

// Takes the note off the file.
void unmarkPending(std::string const& path);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
