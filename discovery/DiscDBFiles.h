// What reading and writing metadata files have in common.

#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Whether the open file is a regular one; if not, a log line of the operation
// names it.
bool isRegular(struct stat const& status, std::string const& path, char const* operation);

// Whether it can be a metadata document besides, by its size. Likewise.
bool isMetadataFile(struct stat const& status, std::string const& path, char const* operation);

void logTooLarge(std::string const& path, off_t size, char const* operation);

// Reads size bytes from the start; fewer are a failure, with errno 0 when the
// file just ended.
bool readExactly(int fd, std::string& text, std::size_t size);

// Reads from the start to the end of the file, whose size may be unknown. 0, or
// why it cannot be had: EFBIG when it is too large for a metadata document.
int readBlocks(int fd, std::string& text);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
