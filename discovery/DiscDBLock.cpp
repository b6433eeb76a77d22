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
//  * A waiting lock (F_SETLKW) waits for as long as the other process likes, and
//    only a signal ends it.
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
// payload has not: its reader locks the metadata file once more, under the
// guard, and makes sure that it still is the stored one. Otherwise it could
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
//                                   the payload
//   DBDiscovery::expire             throughout                write, no wait
//   whoever waits for another       given up meanwhile
//   process's lock
//   MetadataGuard's user in general opens, locks, writes, reloads or closes a
//                                   metadata file
//
// So nobody asks the kernel to wait. A lock is asked for without waiting, and
// when that is refused again after a pause, for 30 seconds altogether (LockWait)
// or until the service ends; then it counts as refused. Whoever may read a file
// of the database can lock it, and would otherwise hold up every writer, and
// the end of the service, for good.
//
// The guard is given up during the pauses, so that a lock that another process
// keeps costs nobody but those who want just that lock. Without the guard no
// lock is taken either: it would convert, by our own process, the lock of the
// thread that has the guard. A waiting thread asks whether another process is in the
// way (F_GETLK), and takes the lock once the guard is back. Another thread may
// have closed the file in between, and another process deleted or rewritten it,
// so a writer then looks at the file afresh: whether it still has its name, and
// what priority it has now.
//
// CleanupLock guards "Update.lock". Writers share it for as long as they have a
// temporary file; the start-up clean-up tries it exclusively. The first sharer
// of a directory in the process opens and locks the file, the last one closes
// it, or the first to finish would unlock for all. The exclusive mode is
// refused while the process itself shares, for the kernel would convert the
// lock and let the clean-up delete our own temporary files; a sharer waits
// while the process itself holds it exclusively. When somebody has deleted the
// lock file, later sharers lock the new one, which is the one others see.
//
// Order: the repository's and the creators' locks, then one MetadataGuard,
// then the record lock of its file. No thread ever holds two guards of
// different paths. The CleanupLock comes before the guard: a writer holds it
// from the opening of its payload until the guarded rename of persist, and the
// clean-up finishes under it what a dead writer left, with the guard of that
// file. So nobody takes it with a guard held, or a writer and the clean-up of
// one process would wait for each other. Between processes nothing is waited
// for under it: the exclusive side tries each lock once. Below them all stand
// FlushGroup, where one writer with his guard waits for another's flush, which
// takes no lock, the index of the directory, and the short
// mutexes of this file, under which nothing else is taken but, for a
// directory, the lock on its "Update.lock".

#include "discovery/DiscDBLock.h"

#include "discovery/DiscDBFiles.h"
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

// What is asked for a hundred times a second costs next to nothing, and finds a
// gap between the locks of others about as soon as a queue would.
constexpr std::chrono::milliseconds LONGEST_PAUSE = 10ms;

// Whether another process has a lock on byte 0 in the way of this one. Takes
// none itself: a lock would convert the one that another thread holds.
bool isInTheWay(int fd, RecordLock type)
{
  struct flock lock
  {
  };
  lock.l_type = type == RecordLock::READ ? F_RDLCK : F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  return ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
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

std::atomic<std::chrono::milliseconds> LockWait::s_limit{30s};
std::atomic<bool> LockWait::s_ended{false};
std::atomic<int> LockWait::s_inProgress{0};

bool LockWait::pause()
{
  if (s_ended || m_left <= 0ms)
    return false;
  ErrnoKeeper const keeper;
  auto const begin = std::chrono::steady_clock::now();
  ++s_inProgress;
  std::this_thread::sleep_for(m_next);
  --s_inProgress;
  m_left -= std::chrono::steady_clock::now() - begin;
  m_next = std::min(m_next * 2, LONGEST_PAUSE);
  return true;
}

int tryLock(ACE_File_Lock& lock, RecordLock type)
{
  for (;;)
  {
    int const result =
        type == RecordLock::READ ? lock.tryacquire_read(0, 0, 1) : lock.tryacquire_write(0, 0, 1);
    if (result == 0 || errno != EINTR)
      return result;
  }
}

int waitLock(ACE_File_Lock& lock, RecordLock type, LockWait& wait)
{
  int result;
  do
    result = tryLock(lock, type);
  while (result != 0 && errno == EBUSY && wait.pause());
  return result;
}

int waitLock(ACE_File_Lock& lock, RecordLock type, LockWait& wait, std::string const& path,
             std::optional<MetadataGuard>& guard)
{
  for (;;)
  {
    int const result = tryLock(lock, type);
    if (result == 0 || errno != EBUSY)
      return result;
    guard.reset();
    bool inTime;
    do
      inTime = wait.pause();
    while (inTime && isInTheWay(lock.get_handle(), type));
    guard.emplace(path);
    if (!inTime)
    {
      errno = EBUSY;
      return -1;
    }
  }
}

bool isFileAt(int fd, char const* path, int* error)
{
  struct stat open
  {
  };
  struct stat named
  {
  };
  bool const asked = ::fstat(fd, &open) == 0 && ::lstat(path, &named) == 0;
  if (error != nullptr)
    *error = asked || errno == ENOENT || errno == ENOTDIR ? 0 : errno;
  return asked && open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

// One without users serves the next path: records come by the hundred thousand.
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
  HeldFile file; // open while anyone holds the lock

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
  LockWait wait;
  take(dir, wait);
}

CleanupLock::CleanupLock(char const* dir, LockMode mode, LockWait& wait) : m_mode(mode)
{
  take(dir, wait);
}

void CleanupLock::take(char const* dir, LockWait& wait)
{
  std::string const path = OzfPathname::makeFilename(dir, "Update.lock").str();
  m_directory = &Directory::of(path);

  std::unique_lock lock(m_directory->mutex);
  if (m_mode == SHARED)
  {
    m_directory->exclusiveGone.wait(lock, [this] { return !m_directory->exclusive; });
    if (m_directory->sharers == 0 || !isFileAt(m_directory->file->get_handle(), path.c_str()))
      m_locked = acquire(path, wait);
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
  m_locked = acquire(path, wait);
  m_directory->exclusive = m_locked;
}

// Opens and locks the file; the directory's mutex is held.
bool CleanupLock::acquire(std::string const& path, LockWait& wait)
{
  for (int round = 0; round < REPLACED_LIMIT; ++round)
  {
    int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | DATABASE_FILE_FLAGS, 0644);
    struct stat status
    {
    };
    if (fd < 0 || (::fstat(fd, &status) == 0 && !isDatabaseFile(status, path, ACQUIRE)))
    {
      int const error = errno;
      if (fd >= 0)
        ::close(fd);
      OZF_LOG(getOzfLogger(), 1, SOURCE, ACQUIRE, "Unable to open " << path);
      if (fd < 0)
        logIfLink(path, error, ACQUIRE);
      return false;
    }
    HeldFile file(new ACE_File_Lock(fd, false));
    int const result = m_mode == SHARED ? waitLock(*file, RecordLock::READ, wait)
                                        : tryLock(*file, RecordLock::WRITE);
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
