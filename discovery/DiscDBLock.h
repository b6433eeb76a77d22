// The locks of the file database. The essay on how they work together stands
// at the head of DiscDBLock.cpp.

#pragma once

#include "discovery/Export.h"

#include <ace/File_Lock.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// How long one operation may wait for the record locks of other processes: 30
// seconds altogether, however many locks it asks for. Only the waiting counts.
class TQ_EXPORT LockWait
{
public:
  LockWait() : m_left(s_limit.load()) {}
  LockWait(LockWait const&) = delete;
  LockWait& operator=(LockWait const&) = delete;

  // Sleeps before the lock is asked for again, each time a little longer. False,
  // without sleeping, when the time is up or all waits have been ended; errno
  // stays.
  bool pause();

  // From now on nobody begins to wait, and waits end within milliseconds: for the
  // end of the service, which a lock of some other process must not hold up.
  // Locks that are free are granted all the same. Any thread.
  static void endAll() noexcept { s_ended = true; }
  // Waits are allowed again, for another service in the process.
  static void allow() noexcept { s_ended = false; }

  // For tests: the limit of those made from now on, and how many threads sleep.
  static void setLimit(std::chrono::milliseconds limit) noexcept { s_limit = limit; }
  static int inProgress() noexcept { return s_inProgress; }

private:
  static std::atomic<std::chrono::milliseconds> s_limit;
  static std::atomic<bool> s_ended;
  static std::atomic<int> s_inProgress;

  std::chrono::steady_clock::duration m_left;
  std::chrono::milliseconds m_next{1};
};

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

  // Failures are logged and leave the lock not held. The second shares the time
  // for waiting with the caller's other locks.
  CleanupLock(char const* dir, LockMode mode);
  CleanupLock(char const* dir, LockMode mode, LockWait& wait);
  ~CleanupLock();
  CleanupLock(CleanupLock const&) = delete;
  CleanupLock& operator=(CleanupLock const&) = delete;

  bool isLocked() const noexcept { return m_locked; }

private:
  struct Directory;

  void take(char const* dir, LockWait& wait);
  bool acquire(std::string const& path, LockWait& wait);

  LockMode m_mode;
  Directory* m_directory = nullptr; // owns the open lock file; null only in the making
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

enum class RecordLock
{
  READ,
  WRITE
};

// A record lock on byte 0. tryLock does not wait: 0, or -1 with errno, EBUSY
// when another process has a lock in the way. waitLock asks again for as long as
// it may, and then is -1 with EBUSY.
TQ_EXPORT int tryLock(ACE_File_Lock& lock, RecordLock type);
TQ_EXPORT int waitLock(ACE_File_Lock& lock, RecordLock type, LockWait& wait);

// The same for a metadata file whose guard the caller holds. It is given up
// while another process is in the way: other threads may have closed, rewritten
// or deleted the file in between. It is held again at the return.
TQ_EXPORT int waitLock(ACE_File_Lock& lock, RecordLock type, LockWait& wait,
                       std::string const& path, std::optional<MetadataGuard>& guard);

// Whether path is a name of the open file. A lock on a file that lost its name
// or gave it to another file is worth nothing. Counting links is not enough: a
// snapshot made of hard links keeps files alive under other names. error tells
// the two kinds of false apart: 0, or why it could not be found out.
TQ_EXPORT bool isFileAt(int fd, char const* path, int* error = nullptr);

// How often a lock is taken anew because its file was replaced meanwhile. Files
// are not replaced that often; a file system that answers differently for the
// open file and for its name would have us try forever.
inline constexpr int REPLACED_LIMIT = 100;

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
