// The index of the database directory.
//
// The files are the truth, and any process may write them. A list may be
// answered from memory nevertheless, because the kernel queues the notice of a
// change (inotify) before the system call that makes it returns. Whoever has been
// told that a write is done made all its system calls before; so if the queue is
// emptied after a query began, everything that was acknowledged before the query
// is marked.
//
// A notice says that a file changed, never to what. A file that is marked is read
// like any other, through DiscoveryDBCreator::getDiscovery: under its lock, so
// that half a write is never seen, with its log lines, and deleted if it has
// expired. What it said is kept only if no notice of it was taken from the queue
// since before it was opened; each notice has a number of its own for that. One
// that is still in the queue is met by the next update, before anything is
// listed. A file that cannot be read, or that cost a log line, is never kept, and
// so is read and reported each time it is met. A record that has expired by the
// clock is read again as well.
//
// What could be missed makes everything unknown, and the names are read again:
// a queue that overflowed, a directory that was renamed, deleted or replaced, or
// whose own rights changed. Whether the path still names the directory watched is
// asked at each update, because a folder above it may have been renamed. Where
// changes cannot be followed at all, the caller walks the directory as those
// do who have no index: file systems that other machines write to, directories
// in which letter case does not count, no right, or no watch left.
//
// Changes that nobody is told of: those made through a mapping in memory or by
// asynchronous output (aio), and what is done by way of a second name of a file,
// wherever that is: that there is one, which makes the file refused when it is
// opened, and what is written to it under that name. Programs of the first kind do
// not keep to the locks either; a file of the second kind is listed as it was until
// it is changed under its own name. The notice of a closed file (IN_CLOSE_WRITE)
// would tell of most of the first, but all readers open for writing too, as they
// may have to delete what has expired.
//
// A lock that is only held changes nothing: a list answers with what the
// record said before, and waits for the writer from the moment he has begun to
// write.
//
// Order of locks: m_mutex is taken last, under nothing but a caller's own, and
// no file is opened under it but the directory.

#include "discovery/DiscDBIndex.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/WakeUp.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <dirent.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <system_error>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";

// Not in the system's header.
constexpr std::uint64_t F2FS_MAGIC = 0xF2F52010;
constexpr std::uint64_t BCACHEFS_MAGIC = 0xCA451A4E;

constexpr std::uint32_t CHANGES = IN_CREATE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t ALL_LOST =
    IN_Q_OVERFLOW | IN_IGNORED | IN_UNMOUNT | IN_DELETE_SELF | IN_MOVE_SELF;

// The queue holds 16,384 notices by default, and a write makes six of them.
constexpr std::chrono::milliseconds FOLLOWING_PAUSE{200};

// How long the thread sleeps at most: what is to wake it may fail.
constexpr int LONGEST_SLEEP_MS = 1000;

struct DirectoryCloser
{
  void operator()(DIR* directory) const { ::closedir(directory); }
};

bool isMetadataName(std::string_view name) { return name.ends_with(".xml"); }

bool hasExpired(std::optional<CollectionAttributes> const& attributes, OzfObjTime const& now)
{
  return attributes && !attributes->getExpiresTime().isZero() && attributes->getExpiresTime() < now;
}

} // namespace

bool DiscoveryIndex::tellsChanges(std::uint64_t fileSystem, unsigned flags)
{
  if ((flags & FS_CASEFOLD_FL) != 0)
    return false; // a notice may have the name in other letters than the directory
  switch (fileSystem)
  {
  case EXT4_SUPER_MAGIC: // and those before it
  case XFS_SUPER_MAGIC:
  case BTRFS_SUPER_MAGIC:
  case TMPFS_MAGIC:
  case OVERLAYFS_SUPER_MAGIC:
  case F2FS_MAGIC:
  case BCACHEFS_MAGIC:
    return true; // not ZFS, which can take a mounted file system back to a snapshot
  default:
    return false;
  }
}

DiscoveryIndex::DiscoveryIndex(std::string directory) : m_directory(std::move(directory)) {}

DiscoveryIndex::~DiscoveryIndex()
{
  if (!m_follower.joinable())
    return;
  {
    std::lock_guard const lock(m_mutex);
    m_ending = true;
  }
  m_end.notify_all();
  wakeUp(m_wake.get());
  m_follower.join();
}

bool DiscoveryIndex::update()
{
  std::lock_guard const lock(m_mutex);
  if (isWatched() && !isSameDirectory())
    forget();
  takeChanges();
  return isWatched() || begin();
}

bool DiscoveryIndex::isSameDirectory() const
{
  struct stat status
  {
  };
  return ::stat(m_directory.c_str(), &status) == 0 && status.st_dev == m_device &&
         status.st_ino == m_inode;
}

// Notices that cannot be taken from the queue, or were taken and then lost for want
// of memory, make everything unknown.
void DiscoveryIndex::takeChanges()
{
  if (!m_events.valid())
    return;
  alignas(inotify_event) std::array<char, 16 * 1024> buffer;
  for (;;)
  {
    ssize_t const count = ::read(m_events.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
    {
      if (errno != EAGAIN)
        forget();
      return;
    }
    try
    {
      for (char const* at = buffer.data(); at < buffer.data() + count;)
      {
        inotify_event event;
        std::memcpy(&event, at, sizeof event);
        at += sizeof event;
        takeChange(event.mask, event.wd, std::string_view(at, ::strnlen(at, event.len)));
        at += event.len;
      }
    }
    catch (std::bad_alloc const&)
    {
      forget();
      throw;
    }
  }
}

void DiscoveryIndex::takeChange(std::uint32_t mask, int watch, std::string_view name)
{
  // An overflow is that of all watches. Others tell of a directory given up.
  if (!isWatched() || (watch != m_watch && (mask & IN_Q_OVERFLOW) == 0))
    return;
  if ((mask & ALL_LOST) != 0 || name.empty())
  {
    OZF_LOG(getOzfLogger(), 4, SOURCE, "DiscoveryIndex::update",
            "Lists of discoveries begin anew: " << ((mask & IN_Q_OVERFLOW) != 0
                                                        ? "too many changes at once"
                                                        : "the directory itself changed"));
    forget();
    return;
  }
  if (!isMetadataName(name))
    return;
  // Two files that change names with each other are told of as a, b and b, a: what
  // has gone by its own notice may be there all the same.
  if ((mask & IN_DELETE) == 0)
    markChanged(name);
  else if (auto const entry = m_entries.find(name); entry != m_entries.end())
    m_entries.erase(entry);
}

void DiscoveryIndex::markChanged(std::string_view name)
{
  auto entry = m_entries.find(name);
  if (entry == m_entries.end())
    entry = m_entries.emplace(std::string(name), Entry()).first;
  entry->second.change = ++m_changes;
  entry->second.known = false;
}

void DiscoveryIndex::forget() noexcept
{
  if (isWatched())
    ::inotify_rm_watch(m_events.get(), m_watch);
  m_watch = -1;
  m_entries.clear();
}

bool DiscoveryIndex::unavailable(std::string const& reason)
{
  forget();
  if (m_reason == reason)
    return false;
  m_reason = reason;
  OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoveryIndex::update",
          "Lists of discoveries read every file: " << reason);
  return false;
}

// The watch comes first, so that what changes while the names are read is marked.
bool DiscoveryIndex::begin()
{
  UniqueFd directory(::open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid())
    return false; // the walk will tell
  struct statfs fileSystem
  {
  };
  struct stat status
  {
  };
  // The path may name another directory by now.
  std::string const opened = "/proc/self/fd/" + std::to_string(directory.get());
  if (::fstat(directory.get(), &status) != 0 || ::statfs(opened.c_str(), &fileSystem) != 0)
    return unavailable(m_directory + " cannot be examined: " + errorText(errno));
  int flags = 0; // and so where there are none
  ::ioctl(directory.get(), FS_IOC_GETFLAGS, &flags);
  if (!tellsChanges(static_cast<std::uint64_t>(fileSystem.f_type) & 0xFFFFFFFF,
                    static_cast<unsigned>(flags)))
    return unavailable("the file system of " + m_directory +
                       " is none whose changes are all told here");

  if (!m_events.valid())
    m_events.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (m_events.valid())
    m_watch = ::inotify_add_watch(m_events.get(), opened.c_str(), CHANGES);
  if (!isWatched())
    return unavailable(m_directory + " cannot be watched: " + errorText(errno));
  m_device = status.st_dev;
  m_inode = status.st_ino;
  try
  {
    if (!readNames(directory.get()))
      return unavailable(m_directory + " cannot be read: " + errorText(errno));
  }
  catch (std::bad_alloc const&)
  {
    forget();
    throw;
  }
  m_reason.clear();
  followChanges();
  return true;
}

bool DiscoveryIndex::readNames(int directory)
{
  int const own = ::fcntl(directory, F_DUPFD_CLOEXEC, 0);
  std::unique_ptr<DIR, DirectoryCloser> const stream(own >= 0 ? ::fdopendir(own) : nullptr);
  if (!stream)
  {
    ErrnoKeeper const keeper;
    if (own >= 0)
      ::close(own);
    return false;
  }
  for (;;)
  {
    errno = 0;
    dirent const* const entry = ::readdir(stream.get());
    if (entry == nullptr)
      return errno == 0;
    if (isMetadataName(entry->d_name))
      markChanged(entry->d_name);
  }
}

// Without a thread the next list after many changes reads every file again.
void DiscoveryIndex::followChanges()
{
  if (m_follower.joinable())
    return;
  if (!m_wake.valid())
    m_wake.reset(::eventfd(0, EFD_CLOEXEC));
  if (!m_wake.valid())
    return;
  try
  {
    m_follower = std::thread(&DiscoveryIndex::keepTakingChanges, this);
  }
  catch (std::system_error const&)
  {
  }
}

// What m_follower does.
void DiscoveryIndex::keepTakingChanges()
{
  for (;;)
  {
    std::array<pollfd, 2> both{{{m_wake.get(), POLLIN, 0}, {m_events.get(), POLLIN, 0}}};
    ::poll(both.data(), both.size(), LONGEST_SLEEP_MS);
    std::unique_lock lock(m_mutex);
    if (m_end.wait_for(lock, FOLLOWING_PAUSE, [this] { return m_ending; }))
      return;
    try
    {
      takeChanges();
    }
    catch (std::bad_alloc const&)
    {
      // All is forgotten, and read again by the next list.
    }
  }
}

DiscoveryIndex::Listed
DiscoveryIndex::list(std::string& after, std::function<Match(std::string_view name)> const& match,
                     AuthorityType type, DiscoveryIterator::Taker const& take, Unread& unread)
{
  std::lock_guard const lock(m_mutex);
  if (!isWatched())
    return Listed::UNKNOWN;
  OzfObjTime const now = OzfObjTime::now();
  for (auto at = m_entries.upper_bound(after); at != m_entries.end(); ++at)
  {
    auto const& [name, entry] = *at;
    Match const matched = match(name);
    if (matched == Match::NONE)
      continue;
    if (matched == Match::MAYBE || !entry.known || hasExpired(entry.attributes, now))
    {
      after = name;
      unread = {name, entry.change};
      return Listed::UNREAD;
    }
    if (entry.type == AT_REMOTEPULL && type != AT_REMOTEPULL)
      continue;
    if (!take({entry.subject, entry.authority, entry.type,
               entry.attributes ? &*entry.attributes : nullptr, nullptr}))
    {
      after = name;
      return Listed::ENOUGH;
    }
  }
  return Listed::END;
}

void DiscoveryIndex::learn(Unread const& unread, Discovery const& discovery)
{
  if (!discovery.readsAlike())
    return;
  std::lock_guard const lock(m_mutex);
  auto const found = m_entries.find(unread.name);
  if (found == m_entries.end() || found->second.change != unread.change)
    return;
  Entry& entry = found->second;
  entry.known = false; // until all of it is there
  entry.type = discovery.getAuthority()->getType();
  entry.authority = discovery.getAuthority()->getName().str();
  entry.subject = discovery.getSubject()->getName().str();
  entry.attributes.reset();
  if (discovery.getAttributes() != nullptr)
    entry.attributes.emplace(*discovery.getAttributes()).setSignature({});
  entry.known = true;
}

void DiscoveryIndex::learnAbsent(Unread const& unread)
{
  std::lock_guard const lock(m_mutex);
  auto const found = m_entries.find(unread.name);
  if (found != m_entries.end() && found->second.change == unread.change)
    m_entries.erase(found);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
