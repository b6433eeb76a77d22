#include "discovery/DiscDBCollection.h"

#include "discovery/DiscDBFiles.h"
#include "discovery/DiscDBFlush.h"
#include "discovery/DiscDBPending.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/WriteCounts.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <new>
#include <optional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";
constexpr std::uint16_t LAST_CANDIDATE = 999;

// Together with other writers, or alone where there is no memory for that: what is in its
// place already would be refused otherwise, and stay there.
int flushShared(OzfPathname const& path, int fd)
{
  try
  {
    return FlushGroup::of(path.directory()).flush(fd);
  }
  catch (std::bad_alloc const&)
  {
    return ::fsync(fd) == 0 ? 0 : errno;
  }
}

} // namespace

DBCollectionData::DBCollectionData(OzfPathname path) : m_path(std::move(path)) {}

DBCollectionData::~DBCollectionData()
{
  if (m_handle == ACE_INVALID_HANDLE)
    return;
  switch (m_mode)
  {
  case OM_UPDATE:
    try
    {
      cleanup();
    }
    catch (std::bad_alloc const&)
    {
      // Of the lines that tell what it did.
    }
    return;
  case OM_READ:
    break;
  default:
    // Nothing may leave a destructor; the assertion has been logged.
    try
    {
      assertionFailed("SHOULD_NOT_GET_HERE", "DBCollectionData::~DBCollectionData", SOURCE,
                      __LINE__);
    }
    catch (std::exception const&)
    {
    }
    break;
  }
  ::close(m_handle);
}

void DBCollectionData::openUnder(HeldFile const& metadataLock, OzfPathname const& metadataPath)
{
  m_metadataLock = &metadataLock;
  m_metadataPath = &metadataPath;
}

int DBCollectionData::open(OpenMode mode, char const*)
{
  abandon();
  m_mode = mode;
  m_renameFailed = false;
  m_marked = false;
  return mode == OM_UPDATE ? openTemporary() : openPayload();
}

void DBCollectionData::abandon()
{
  if (m_handle == ACE_INVALID_HANDLE)
    return;
  if (m_mode == OM_UPDATE)
  {
    cleanup();
    return;
  }
  ::close(m_handle);
  m_handle = ACE_INVALID_HANDLE;
}

// Under the guard; false, with a log line, when the metadata file cannot be
// locked or is no longer the stored one.
bool DBCollectionData::lockMetadata(std::optional<MetadataGuard>& guard) const
{
  constexpr char OPERATION[] = "DBCollectionData::open";
  LockWait wait;
  if (waitLock(**m_metadataLock, RecordLock::READ, wait, m_metadataPath->str(), guard) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to lock " << m_metadataPath->str());
    return false;
  }
  if (isFileAt((*m_metadataLock)->get_handle(), m_metadataPath->c_str()))
    return true;
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Was deleted: " << m_metadataPath->str());
  return false;
}

bool DBCollectionData::openPayload()
{
  constexpr char OPERATION[] = "DBCollectionData::open";
  std::optional<MetadataGuard> guard;
  if (m_metadataLock != nullptr && *m_metadataLock)
  {
    guard.emplace(m_metadataPath->str());
    if (!lockMetadata(guard))
      return false;
  }
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Opening collection file: " << m_path.str());

  UniqueFd fd(::open(m_path.c_str(), O_RDONLY | DATABASE_FILE_FLAGS));
  struct stat status
  {
  };
  if (fd.valid() && ::fstat(fd.get(), &status) == 0)
  {
    if (isDatabaseFile(status, m_path.str(), OPERATION))
    {
      m_handle = fd.release();
      return true;
    }
    errno = EINVAL;
  }
  int const error = errno;
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Last error" << error);
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, m_path.str() << ": " << errorText(error));
  logIfLink(m_path.str(), error, OPERATION);
  return false;
}

bool DBCollectionData::openTemporary()
{
  constexpr char OPERATION[] = "DBCollectionData::open";
  std::string const directory = m_path.directory();
  LockWait wait;
  for (std::uint16_t candidate = 0;; ++candidate)
  {
    // One that is held serves for the next number as well: a new one would be
    // granted at once and cost system calls for each writer at work.
    if (candidate == 0 || !m_cleanupLock->isLocked())
      m_cleanupLock = std::make_unique<CleanupLock>(directory.c_str(), CleanupLock::SHARED, wait);
    OzfPathname path =
        OzfPathname::makeFilename(directory, std::to_string(candidate) + ".updating");
    if (candidate > 0)
      OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
              "Attempting collecation data file " << path.str());
    m_handle = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | DATABASE_FILE_FLAGS, 0644);
    if (m_handle != ACE_INVALID_HANDLE)
    {
      m_path = std::move(path);
      return true;
    }
    int const error = errno;
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Last error" << error);
    if (candidate + 1 > LAST_CANDIDATE)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, path.str() << ": " << errorText(error));
      m_cleanupLock.reset();
      return false;
    }
  }
}

long DBCollectionData::readCollection(unsigned long len, void* buf) const
{
  constexpr char OPERATION[] = "DBCollectionData::readCollection";
  OZF_ASSERT(m_handle != ACE_INVALID_HANDLE, "ACE_INVALID_HANDLE != m_handle", SOURCE, OPERATION);
  ssize_t count;
  do
    count = ::read(m_handle, buf, len);
  while (count < 0 && errno == EINTR);
  if (count < 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Unable to read " << m_path.str() << ": " << errorText(errno));
  return count;
}

long DBCollectionData::writeCollection(unsigned long len, void const* buf) const
{
  constexpr char OPERATION[] = "DBCollectionData::writeCollection";
  OZF_ASSERT(m_handle != ACE_INVALID_HANDLE, "ACE_INVALID_HANDLE != m_handle", SOURCE, OPERATION);
  auto const* next = static_cast<char const*>(buf);
  while (len > 0)
  {
    ssize_t const count = ::write(m_handle, next, len);
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
    {
      getWriteCounts().add(DS_OPEN_FAILED);
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Unable to write " << m_path.str() << ": " << errorText(errno));
      return 0;
    }
    next += count;
    len -= static_cast<unsigned long>(count);
  }
  return 1;
}

bool DBCollectionData::flush(std::string const& target, std::string const& document)
{
  constexpr char OPERATION[] = "DBCollectionData::flush";
  OZF_ASSERT(m_handle == ACE_INVALID_HANDLE || m_mode == OM_UPDATE, "OM_UPDATE == m_mode", SOURCE,
             OPERATION);
  if (m_handle == ACE_INVALID_HANDLE && open(OM_UPDATE, "") == 0)
    return false;
  OZF_ASSERT(m_handle != ACE_INVALID_HANDLE, "ACE_INVALID_HANDLE != m_handle", SOURCE, OPERATION);

  m_marked = !target.empty() && markPending(m_handle, target, document);

  // Many file systems find out here that the disk is full. A bad descriptor is
  // left to the close, which logs it and goes on. The note has to be on
  // the disk as well before the metadata is touched.
  if (::fsync(m_handle) != 0 && errno != EBADF)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Unable to flush " << m_path.str() << ": " << errorText(errno));
    return false;
  }
  m_directory.reset(::open(m_path.directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!m_directory.valid())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Unable to open " << m_path.directory() << ": " << errorText(errno));
    return false;
  }
  // A note without a name would be lost. It costs a seventh of a write.
  return flushKeepsNames(m_directory.get()) || syncDirectory(OPERATION);
}

bool DBCollectionData::persist(OzfPathname const& target)
{
  constexpr char OPERATION[] = "DBCollectionData::persist";
  if (m_renameFailed)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Refused to persist again what failed before: " << target.str());
    return false;
  }
  if (m_handle == ACE_INVALID_HANDLE && open(OM_UPDATE, "") == 0)
    return false;
  OZF_ASSERT(m_handle != ACE_INVALID_HANDLE, "ACE_INVALID_HANDLE != m_handle", SOURCE, OPERATION);
  OZF_ASSERT(m_mode == OM_UPDATE, "OM_UPDATE == m_mode", SOURCE, OPERATION);
  // What could lack memory comes first: a closed file would not be cleaned up.
  OzfPathname const temporary = m_path;
  OzfPathname reached = target;
  closeHandle(OPERATION);

  // The old payload goes in the same step in which the new one comes, so that
  // there is one at every moment.
  struct stat status
  {
  };
  bool const replaces = ::lstat(target.c_str(), &status) == 0;
  int const error = ::rename(temporary.c_str(), target.c_str()) == 0 ? 0 : errno;
  if (error == 0)
    m_path = std::move(reached);
  m_renameFailed = error != 0;

  if (replaces && error == 0)
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Deleted file: " << target.str());
  else
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to delete " << target.str());
  if (error != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Unable to rename " << temporary.str() << " to " << target.str());
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, temporary.str() << ": " << errorText(error));
    m_directory.reset();
    return false;
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "Successfully renamed " << temporary.str() << " to " << target.str());
  m_cleanupLock.reset();
  return true;
}

void DBCollectionData::forgetTarget() const
{
  if (m_marked)
    unmarkPending(m_path.str());
}

// Where the file system cannot do it there is nothing to wait for.
bool DBCollectionData::syncDirectory(char const* operation) const
{
  int const error = flushShared(m_path, m_directory.get());
  if (error == 0 || error == EINVAL || error == ENOTSUP)
    return true;
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
          "Unable to flush " << m_path.directory() << ": " << errorText(error));
  return false;
}

bool DBCollectionData::flushDirectory()
{
  constexpr char OPERATION[] = "DBCollectionData::flushDirectory";
  OZF_ASSERT(m_directory.valid(), "m_directory.valid()", SOURCE, OPERATION);
  bool const flushed = syncDirectory("DBCollectionData::persist");
  m_directory.reset();
  if (flushed)
    forgetTarget();
  return flushed;
}

bool DBCollectionData::cleanup()
{
  constexpr char OPERATION[] = "DBCollectionData::cleanup";
  if (m_handle == ACE_INVALID_HANDLE)
    return true;
  closeHandle(OPERATION);
  m_directory.reset();
  if (m_mode != OM_UPDATE) // what is open is no temporary file
    return true;
  if (::unlink(m_path.c_str()) != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to delete " << m_path.str());
  else
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Deleted file: " << m_path.str());
  m_cleanupLock.reset();
  return true;
}

void DBCollectionData::closeHandle(char const* operation)
{
  if (::close(m_handle) != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
            "Unable to close collection file: " << m_path.str() << " Last error: " << errno);
  m_handle = ACE_INVALID_HANDLE;
}

bool DBCollectionData::expire() const
{
  constexpr char OPERATION[] = "DBCollectionData::expire";
  OZF_ASSERT(m_handle == ACE_INVALID_HANDLE, "ACE_INVALID_HANDLE == m_handle", SOURCE, OPERATION);
  // Where it cannot be found out, the deletion shows it.
  if (::access(m_path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Collection data did not exist " << m_path.str());
    return true;
  }
  if (::unlink(m_path.c_str()) != 0)
    return false;
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Deleted colllection: " << m_path.str());
  return true;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
