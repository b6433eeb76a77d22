// The locks of the file database.
//
// What other processes see are record locks (fcntl) on byte 0 of a file: of a
// metadata file, and of "Update.lock" in the database directory. A record lock
// belongs to a process and an inode, not to a descriptor, and so has traps:
//
//  * Closing any descriptor of a file drops every lock the process holds on
//    it. A thread that merely looks at a file takes away the lock under which
//    another thread is writing it.
//  * A second lock of the same process does not wait: it converts the first.
//    Threads of one process do not exclude each other.
//  * The kernel looks for deadlocks by process. It sees some where there are
//    none (EDEADLK), because the threads that wait and that hold are different
//    ones, and may miss those that run through our own mutexes.
//  * A lock follows the inode. Whoever waited for a file that was deleted in
//    the meantime gets the lock on a file that nobody will ever find again.
//
// Three things make up for them.
//
// MetadataGuard excludes the threads of this process from one another, by the
// path of the metadata file. It is held during an operation, never for the
// life of a record: a thread that walks the database and holds a record may
// rewrite that record. What it then loses is the record lock that its own
// record kept, and nothing but that; the metadata has been read by then. The
// payload has not: who opens it locks the metadata file once more, under the
// guard, and makes sure that it still is the stored one. Otherwise he could
// look for the payload while a writer has written the metadata and not yet
// renamed the payload that belongs to it.
//
//   operation                       guard held                record lock
//   ------------------------------  ------------------------  ---------------
//   DiscoveryDBCreator::getDiscovery throughout               read, waits
//   ~DBDiscovery                    while closing the file    dropped
//   DBDiscovery::canOverride        throughout                read, waits
//   DBCollectionData::open for      throughout                read, waits
//   reading, of a stored discovery
//   DBDiscovery::persist            except while it flushes   write, waits
//                                   the payload or waits for
//                                   another process's lock
//   DBDiscovery::expire             throughout                write, no wait
//   MetadataGuard's user in general opens, locks, writes, reloads or closes a
//                                   metadata file
//
// A write lock is only ever held by an operation that goes on without waiting
// for a record lock: whoever waits for one under the guard waits for work that
// is under way. The wait for a write lock, however, ends when other processes
// let go of records they keep, which may take them long and may need guards of
// theirs. So persist asks without waiting first; when that is refused it gives
// the guard up, waits, and takes the guard again. Another thread may have
// closed the file in between, so it then asks again and looks at the file
// afresh: whether it still has its name, and what priority it has now.
//
// CleanupLock guards "Update.lock". Writers share it for as long as they have a
// temporary file; the start-up clean-up tries it exclusively. The first sharer
// of a directory in the process opens and locks the file, the last one closes
// it, or else the first to finish would unlock for all. The exclusive mode is
// refused while the process itself shares, for the kernel would convert the
// lock and let the clean-up delete our own temporary files; a sharer waits
// while the process itself holds it exclusively. When somebody has deleted the
// lock file, later sharers lock the new one, which is the one others see.
//
// Order: the repository's and the creators' locks, then one MetadataGuard,
// then the record lock of its file. No thread ever holds two guards of
// different paths. The CleanupLock stands outside this order: a writer holds it
// from the opening of his payload, long before the guard of persist, while
// another may come to wait for it with a guard held. That is no deadlock, for
// the exclusive side is the only one to be waited for, and it never waits
// itself: it tries once, deletes and goes. Below them all stand the short
// mutexes of this file, under which nothing else is taken but, for a
// directory, the lock on its "Update.lock".

#include "discovery/DiscDBLock.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <thread>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";
constexpr char ACQUIRE[] = "CleanupLock::CleanupLock";

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds LONGEST_PAUSE = 100ms;

template <class Acquire>
int waitLock(Acquire acquire, std::chrono::milliseconds limit)
{
  std::chrono::milliseconds pause = 1ms;
  std::chrono::milliseconds paused = 0ms; // in this run of EDEADLK
  for (;;)
  {
    auto const asked = std::chrono::steady_clock::now();
    if (acquire() == 0)
      return 0;
    if (errno != EDEADLK && errno != EINTR)
      return -1;
    // What was interrupted, or refused late, had been waiting in earnest.
    if (errno == EINTR || std::chrono::steady_clock::now() - asked > LONGEST_PAUSE)
    {
      pause = 1ms;
      paused = 0ms;
    }
    if (errno == EINTR)
      continue;
    if (paused >= limit)
      return -1;
    ErrnoKeeper const keeper;
    std::this_thread::sleep_for(pause);
    paused += pause;
    pause = std::min(pause * 2, LONGEST_PAUSE);
  }
}

} // namespace

void FileLockCloser::operator()(ACE_File_Lock* lock) const noexcept
{
  int const fd = lock->get_handle();
  lock->set_handle(ACE_INVALID_HANDLE);
  delete lock;
  if (fd != ACE_INVALID_HANDLE)
    ::close(fd);
}

int waitReadLock(ACE_File_Lock& lock, std::chrono::milliseconds limit)
{
  return waitLock([&lock] { return lock.acquire_read(0, 0, 1); }, limit);
}

int waitWriteLock(ACE_File_Lock& lock, std::chrono::milliseconds limit)
{
  return waitLock([&lock] { return lock.acquire_write(0, 0, 1); }, limit);
}

bool isFileAt(int fd, char const* path, int* error)
{
  struct stat open
  {
  };
  struct stat named
  {
  };
  bool const asked = ::fstat(fd, &open) == 0 && ::stat(path, &named) == 0;
  if (error != nullptr)
    *error = asked || errno == ENOENT || errno == ENOTDIR ? 0 : errno;
  return asked && open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

// Who has no users serves the next path: records come by the hundred thousand.
struct MetadataGuard::Entry
{
  std::recursive_mutex mutex;
  std::string path; // this and users under the shard's mutex
  long users = 0;   // guards that hold or want the mutex
};

struct MetadataGuard::Shard
{
  std::mutex mutex;
  std::deque<Entry> entries; // as many as were ever in use at once, which is few

  // Never destroyed: records may outlive every static object.
  static Shard& of(std::string const& path)
  {
    static auto& shards = *new std::array<Shard, 64>;
    return shards[std::hash<std::string>{}(path) % shards.size()];
  }

  // Adds a user to the path's entry.
  Entry& use(std::string const& path)
  {
    std::lock_guard const lock(mutex);
    Entry* unused = nullptr;
    for (Entry& entry : entries)
    {
      if (entry.users == 0)
        unused = &entry;
      else if (entry.path == path)
      {
        ++entry.users;
        return entry;
      }
    }
    if (unused == nullptr)
      unused = &entries.emplace_back();
    unused->path = path;
    unused->users = 1;
    return *unused;
  }
};

MetadataGuard::MetadataGuard(std::string const& path)
    : m_shard(Shard::of(path)), m_entry(m_shard.use(path))
{
  m_entry.mutex.lock();
}

MetadataGuard::~MetadataGuard()
{
  m_entry.mutex.unlock();
  std::lock_guard const lock(m_shard.mutex);
  --m_entry.users;
}

// What the process holds of one directory's lock file.
struct CleanupLock::Directory
{
  std::mutex mutex;
  std::condition_variable exclusiveGone;
  long sharers = 0;
  bool exclusive = false;
  std::unique_ptr<ACE_File_Lock> file; // open while anyone holds the lock

  // A process has one or two directories; they are kept for good.
  static Directory& of(std::string const& lockPath)
  {
    static auto& mutex = *new std::mutex;
    static auto& directories = *new std::map<std::string, Directory>;
    std::lock_guard const lock(mutex);
    return directories[lockPath];
  }
};

CleanupLock::CleanupLock(char const* dir, LockMode mode) : m_mode(mode)
{
  std::string const path = OzfPathname::makeFilename(dir, "Update.lock").str();
  m_directory = &Directory::of(path);

  std::unique_lock lock(m_directory->mutex);
  if (mode == SHARED)
  {
    m_directory->exclusiveGone.wait(lock, [this] { return !m_directory->exclusive; });
    if (m_directory->sharers == 0 || !isFileAt(m_directory->file->get_handle(), path.c_str()))
      m_locked = acquire(path);
    else
      m_locked = true;
    if (m_locked)
      ++m_directory->sharers;
    return;
  }
  if (m_directory->exclusive || m_directory->sharers > 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, ACQUIRE, "Unable to lock " << path);
    return;
  }
  m_locked = acquire(path);
  m_directory->exclusive = m_locked;
}

// Opens and locks the file; the directory's mutex is held.
bool CleanupLock::acquire(std::string const& path)
{
  for (int round = 0; round < REPLACED_LIMIT; ++round)
  {
    int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
    if (fd < 0)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, ACQUIRE, "Unable to open " << path);
      return false;
    }
    auto file = std::make_unique<ACE_File_Lock>(fd, false);
    int const result = m_mode == SHARED ? waitReadLock(*file) : file->tryacquire_write(0, 0, 1);
    if (result != 0)
      break;
    if (isFileAt(fd, path.c_str()))
    {
      m_directory->file = std::move(file);
      return true;
    }
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, ACQUIRE, "Unable to lock " << path);
  return false;
}

CleanupLock::~CleanupLock()
{
  if (!m_locked)
    return;
  std::lock_guard const lock(m_directory->mutex);
  if (m_mode == SHARED && --m_directory->sharers > 0)
    return;
  m_directory->file.reset();
  if (m_mode != SHARED)
  {
    m_directory->exclusive = false;
    m_directory->exclusiveGone.notify_all();
  }
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
