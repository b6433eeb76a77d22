// The locks of the file database. The essay on how they work together stands
// at the head of DiscDBLock.cpp.

#pragma once

#include "discovery/Export.h"

#include <ace/File_Lock.h>

#include <chrono>
#include <memory>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The advisory lock that keeps the start-up clean-up away from the temporary
// files of writers at work: byte 0 of "Update.lock" in the database directory.
// Within a process the shared mode is counted by directory.
class TQ_EXPORT CleanupLock
{
public:
  enum LockMode : int
  {
    EXCLUSIVE = 0, // try once
    SHARED = 1     // wait
  };

  // Failures are logged and leave the lock not held.
  CleanupLock(char const* dir, LockMode mode);
  ~CleanupLock();
  CleanupLock(CleanupLock const&) = delete;
  CleanupLock& operator=(CleanupLock const&) = delete;

  bool isLocked() const noexcept { return m_locked; }

private:
  struct Directory;

  bool acquire(std::string const& path);

  LockMode m_mode;
  Directory* m_directory; // never null; owns the open lock file
  bool m_locked = false;
};

// Excludes the threads of this process from one another while one of them
// opens, locks, writes, reloads or closes a metadata file. Recursive. Never
// held for the life of a record.
class TQ_EXPORT MetadataGuard
{
public:
  explicit MetadataGuard(std::string const& path);
  ~MetadataGuard();
  MetadataGuard(MetadataGuard const&) = delete;
  MetadataGuard& operator=(MetadataGuard const&) = delete;

private:
  struct Entry;
  struct Shard;

  Shard& m_shard;
  Entry& m_entry;
};

// Closes the file of a lock without unlocking it first, which the closing does
// anyway: one system call less for every record that is read.
struct TQ_EXPORT FileLockCloser
{
  void operator()(ACE_File_Lock* lock) const noexcept;
};

using HeldFile = std::unique_ptr<ACE_File_Lock, FileLockCloser>;

// How long the kernel may call a waiting lock a deadlock, again and again.
inline constexpr std::chrono::milliseconds DEADLOCK_LIMIT = std::chrono::seconds(30);

// Waiting record locks on byte 0 that do not give up on EINTR or on the
// kernel's false EDEADLK. The wait itself has no limit; the limit is that of an
// unbroken run of EDEADLK. 0, or -1 with errno set.
TQ_EXPORT int waitReadLock(ACE_File_Lock& lock, std::chrono::milliseconds limit = DEADLOCK_LIMIT);
TQ_EXPORT int waitWriteLock(ACE_File_Lock& lock, std::chrono::milliseconds limit = DEADLOCK_LIMIT);

// Whether path is a name of the open file. A lock on a file that lost its name
// or gave it to another file is worth nothing. Counting links is not enough: a
// snapshot made of hard links keeps files alive under other names. error tells
// the two kinds of no apart: 0, or why it could not be found out.
TQ_EXPORT bool isFileAt(int fd, char const* path, int* error = nullptr);

// How often a lock is taken anew because its file was replaced meanwhile. Files
// are not replaced that often; a file system that answers differently for the
// open file and for its name would have us try for ever.
inline constexpr int REPLACED_LIMIT = 100;

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
