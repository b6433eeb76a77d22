// What reading and writing metadata files have in common.

#pragma once

#include "discovery/Export.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// A metadata document has some 500 bytes; a file larger than this is not one.
inline constexpr off_t LARGEST_METADATA = off_t(1) << 20;

// Why an open file is not taken for one of the database; empty when it is: a
// regular file with no other name, of root or of that user. Links, and files of
// others, would let whoever may write to the directory have us read and write
// what they may not. One that has just been deleted has no name at all. Begins with
// a verb, as in "is not a regular file".
TQ_EXPORT std::string refusalOf(struct stat const& status, uid_t owner);

// Why a name that was looked at itself (lstat) is not followed to the database
// directory; empty when it is no link, or one of root or of that user: whose link it
// is decides where it leads. Begins with a verb too.
TQ_EXPORT std::string refusalOfLink(struct stat const& status, uid_t owner);

// Flags of every open of such a file: it follows no link, and does not
// wait for a FIFO or a device in the file's place.
inline constexpr int DATABASE_FILE_FLAGS = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// Writes the line of a file that could not be opened for the errno value, when
// that means a link.
void logIfLink(std::string const& path, int error, char const* operation);

// Whether the open file is one of the database, of root or the effective user;
// if not, a log line of the operation names it.
bool isDatabaseFile(struct stat const& status, std::string const& path, char const* operation);

// Whether by its size it can be a metadata document; if not, likewise.
bool isMetadataFile(struct stat const& status, std::string const& path, char const* operation);

void logTooLarge(std::string const& path, off_t size, char const* operation);

// Whether the file system of the open directory makes the name of a new file
// durable with the file's own flush. Not so where that is not known.
bool flushKeepsNames(int directory);

// Reads size bytes from the start; fewer are a failure, with errno 0 when the
// file just ended.
bool readExactly(int fd, std::string& text, std::size_t size);

// Reads from the start to the end of the file, whose size may be unknown. 0, or
// why it cannot be had: EFBIG when it is too large for a metadata document.
int readBlocks(int fd, std::string& text);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
