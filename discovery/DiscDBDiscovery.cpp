// Discoveries in the file database. The locks are explained in DiscDBLock.cpp.

#include "discovery/DiscDBDiscovery.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/XMLHelper.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <sstream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";

constexpr std::size_t BLOCK = 8096;

// O_NONBLOCK: a FIFO or a device in the file's place must not hold us up.
constexpr int COMMON_FLAGS = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

void logTooLarge(std::string const& path, off_t size, char const* operation)
{
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
          "Too large for metadata: " << path << ", " << size << " bytes");
}

bool isRegular(struct stat const& status, std::string const& path, char const* operation)
{
  if (S_ISREG(status.st_mode))
    return true;
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation, "Not a regular file: " << path);
  return false;
}

// Whether the open file can be a metadata document at all; if not, says so.
bool isMetadataFile(struct stat const& status, std::string const& path, char const* operation)
{
  if (!isRegular(status, path, operation))
    return false;
  if (status.st_size > LARGEST_METADATA)
  {
    logTooLarge(path, status.st_size, operation);
    return false;
  }
  return true;
}

// Reads size bytes from the start; fewer are a failure.
bool readExactly(int fd, std::string& text, std::size_t size)
{
  text.resize(size);
  std::size_t done = 0;
  while (done < size)
  {
    ssize_t const count = ::pread(fd, text.data() + done, size - done, static_cast<off_t>(done));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      break;
    done += static_cast<std::size_t>(count);
  }
  text.resize(done);
  return done == size;
}

// Reads from the start to the end of the file, whose size may be unknown.
bool readBlocks(int fd, std::string& text)
{
  text.clear();
  for (;;)
  {
    std::size_t const done = text.size();
    text.resize(done + BLOCK);
    ssize_t const count = ::pread(fd, text.data() + done, BLOCK, static_cast<off_t>(done));
    text.resize(done + static_cast<std::size_t>(count > 0 ? count : 0));
    if (count == 0)
      return true;
    if (count < 0 && errno != EINTR)
      return false;
    if (text.size() > static_cast<std::size_t>(LARGEST_METADATA))
      return false;
  }
}

bool writeAll(int fd, std::string const& text)
{
  std::size_t done = 0;
  while (done < text.size())
  {
    ssize_t const count =
        ::pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

// The document in the file; none when it cannot be had whole.
std::optional<std::string> readStored(int fd, off_t size)
{
  std::string text;
  if (size > LARGEST_METADATA || !readExactly(fd, text, static_cast<std::size_t>(size)))
    return std::nullopt;
  return text;
}

// Takes a write lock. While another process keeps its lock the guard is given
// up, and the lock asked for again once the guard is back: a thread that closed
// the file in between has taken the lock along.
int waitGivingUpTheGuard(ACE_File_Lock& lock, OzfPathname const& path,
                         std::optional<MetadataGuard>& guard)
{
  int granted = lock.tryacquire_write(0, 0, 1);
  while (granted != 0 && errno == EBUSY)
  {
    guard.reset();
    granted = waitWriteLock(lock);
    int const error = errno;
    guard.emplace(path.str());
    if (granted == 0)
      granted = lock.tryacquire_write(0, 0, 1);
    else
      errno = error;
  }
  return granted;
}

// Opens the file, making it when it is missing, and takes a write lock on what
// path then names. Null, with log lines, when it cannot be had. The guard must
// outlive the result, which closes the file.
HeldFile lockForWriting(OzfPathname const& path, std::optional<MetadataGuard>& guard)
{
  constexpr char OPERATION[] = "DBDiscovery::persist";
  for (int round = 0; round < REPLACED_LIMIT; ++round)
  {
    int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | COMMON_FLAGS, 0644);
    if (fd < 0)
    {
      int const error = errno;
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to open " << path.str());
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, path.str() << ": " << errorText(error));
      return nullptr;
    }
    HeldFile file(new ACE_File_Lock(fd, false));
    if (waitGivingUpTheGuard(*file, path, guard) != 0)
      break;
    if (isFileAt(fd, path.c_str()))
      return file;
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to lock " << path.str());
  return nullptr;
}

void writeFileName(std::ostringstream& os, DBDiscovery const& discovery, char const* operation,
                   char const* extension)
{
  OZF_ASSERT(discovery.getAuthority() != nullptr, "getAuthority()", SOURCE, operation);
  OZF_ASSERT(discovery.getSubject() != nullptr, "getSubject()", SOURCE, operation);
  Authority const& authority = *discovery.getAuthority();
  os << std::to_string(static_cast<int>(authority.getType())) << ' ' << authority.getFileKey()
     << ' ' << discovery.getSubject()->getFileKey() << '.' << extension;
}

} // namespace

DBDiscovery::DBDiscovery(ACE_File_Lock* lock, DBCollectionData* data, DiscoveryQuery query,
                         OzfPathname const& path)
    : Discovery(data, query), m_fileLock(lock), m_heldPath(path)
{
  if (data != nullptr)
    data->openUnder(m_fileLock, m_heldPath);
}

DBDiscovery::DBDiscovery(OzfPathname const& dir, DBCollectionData* data, DiscoveryQuery query)
    : Discovery(data, query), m_directory(dir)
{
}

DBDiscovery::~DBDiscovery()
{
  if (m_fileLock)
  {
    MetadataGuard const guard(m_heldPath.str());
    m_fileLock.reset();
  }
}

void DBDiscovery::setAuthority(Authority* authority)
{
  if (getAuthority() != nullptr)
    m_metadata.clear();
  Discovery::setAuthority(authority);
}

void DBDiscovery::setSubject(Subject* subject)
{
  if (getSubject() != nullptr)
    m_metadata.clear();
  Discovery::setSubject(subject);
}

void DBDiscovery::setAttributes(CollectionAttributes* attributes)
{
  if (getAttributes() != nullptr)
    m_metadata.clear();
  Discovery::setAttributes(attributes);
}

std::ostream& DBDiscovery::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  if (m_metadata.empty())
    return Discovery::writeXml(os, encoding);
  return os << m_metadata;
}

bool DBDiscovery::load()
{
  constexpr char OPERATION[] = "DBDiscovery::load";
  OZF_ASSERT(m_fileLock != nullptr, "m_fileLock", SOURCE, OPERATION);
  int const fd = m_fileLock->get_handle();
  OZF_ASSERT(fd != ACE_INVALID_HANDLE, "ACE_INVALID_HANDLE != m_fileLock->get_handle()", SOURCE,
             OPERATION);

  struct stat status
  {
  };
  if (::fstat(fd, &status) == 0)
  {
    if (!isMetadataFile(status, m_heldPath.str(), OPERATION))
      return false;
    // One link may still be another name's. Whoever waited for the lock or would
    // change anything looks at the name; a walk is spared that.
    if (status.st_nlink != 1 && !isFileAt(fd, m_heldPath.c_str()))
    {
      OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Was deleted: " << m_heldPath.str());
      return false;
    }
    if (status.st_size == 0)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Zero length xml file");
      return false;
    }
    if (!readExactly(fd, m_metadata, static_cast<std::size_t>(status.st_size)))
      return false;
  }
  else if (!readBlocks(fd, m_metadata))
    return false;
  return loadInternal();
}

bool DBDiscovery::load(char const* text)
{
  m_metadata = text != nullptr ? text : "";
  return loadInternal();
}

bool DBDiscovery::loadInternal()
{
  constexpr char OPERATION[] = "DBDiscovery::loadInternal";

  // Parsing replaces parts, which empties m_metadata: it must not be the
  // parser's buffer.
  std::string text = std::move(m_metadata);
  m_metadata.clear();
  bool const parsed = parseBuffer(text);
  m_metadata = std::move(text);
  if (!parsed)
    return false;
  if (getSubject() == nullptr)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Subject not specified");
    m_metadata.clear();
    return false;
  }
  if (getAuthority() == nullptr)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Authority not specified");
    m_metadata.clear();
    return false;
  }
  return true;
}

bool DBDiscovery::priorityAllows(std::string& stored) const
{
  // The second result is the one that counts.
  unsigned priority = 0;
  XMLHelper::parse(stored, priority);
  if (XMLHelper::parse(stored, priority) != 0)
    return true;
  return priority <= (getAttributes() != nullptr ? getAttributes()->getPriority() : 0);
}

bool DBDiscovery::canOverride()
{
  OZF_ASSERT(!m_directory.empty(), "m_directory.size()", SOURCE, "DBDiscovery::canOverride");
  std::ostringstream name;
  generateMetabaseFileName(name);
  OzfPathname const path = OzfPathname::makeFilename(m_directory.str(), name.str());
  MetadataGuard const guard(path.str());
  std::string seen;
  return canOverride(path, seen);
}

// seen is what the decision was made on. When it is no, that is also this
// discovery's text from now on; when it is yes, there is none.
bool DBDiscovery::canOverride(OzfPathname const& path, std::string& seen)
{
  constexpr char OPERATION[] = "DBDiscovery::canOverride";
  int const fd = ::open(path.c_str(), O_RDONLY | COMMON_FLAGS);
  if (fd >= 0)
  {
    ACE_File_Lock lock(fd, false);
    if (waitReadLock(lock) != 0)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to acquire read lock " << path.str());
      return false;
    }
    // A file that lost its name is not the stored discovery any more.
    struct stat status
    {
    };
    bool const counts = isFileAt(fd, path.c_str()) &&
                        (::fstat(fd, &status) != 0 ||
                         (status.st_size > 0 && isMetadataFile(status, path.str(), OPERATION)));
    if (counts && readBlocks(fd, seen) && !priorityAllows(seen))
    {
      m_metadata = seen;
      return false;
    }
  }
  m_metadata.clear();
  return true;
}

DiscoveryStatus DBDiscovery::open(OpenMode mode, char const* name)
{
  constexpr char OPERATION[] = "DBDiscovery::open";
  if (mode == OM_UPDATE && !canOverride())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Cannot open the db database, data with higher priority already exists.");
    return DS_DATA_EXISTS;
  }
  OZF_ASSERT(getCollectionData() != nullptr, "getCollectionData()", SOURCE, OPERATION);
  return getCollectionData()->open(mode, name) != 0 ? DS_SUCCESS : DS_OPEN_FAILED;
}

bool DBDiscovery::writeMetadata(int fd, std::string const& text)
{
  constexpr char OPERATION[] = "DBDiscovery::writeMetadata";

  // Padded over the whole of an old, longer document, so that a process killed
  // before it truncates leaves no tail of it.
  struct stat status
  {
  };
  bool written = false;
  if (::fstat(fd, &status) == 0 && status.st_size > static_cast<off_t>(text.size()) &&
      status.st_size <= LARGEST_METADATA)
  {
    std::string padded = text;
    padded.resize(static_cast<std::size_t>(status.st_size), '\n');
    written = writeAll(fd, padded);
  }
  else
    written = writeAll(fd, text);

  if (!written)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to write metadata");
    return false;
  }
  if (::ftruncate(fd, static_cast<off_t>(text.size())) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to truncate metadata");
    return false;
  }
  return true;
}

DiscoveryStatus DBDiscovery::persist()
{
  constexpr char OPERATION[] = "DBDiscovery::persist";
  OZF_ASSERT(!m_fileLock, "!m_fileLock", SOURCE, OPERATION);
  OZF_ASSERT(getAuthority() != nullptr, "getAuthority()", SOURCE, OPERATION);
  OZF_ASSERT(getSubject() != nullptr, "getSubject()", SOURCE, OPERATION);
  OZF_ASSERT(getCollectionData() != nullptr, "getCollectionData()", SOURCE, OPERATION);
  auto* const data = dynamic_cast<DBCollectionData*>(getCollectionData());
  OZF_ASSERT(data != nullptr, "collection", SOURCE, OPERATION);

  std::ostringstream name;
  generateMetabaseFileName(name);
  std::ostringstream dataName;
  generatecollectionBaseFileName(dataName);
  DiscoveryStatus const status =
      persistFiles(*data, OzfPathname::makeFilename(m_directory.str(), name.str()),
                   OzfPathname::makeFilename(m_directory.str(), dataName.str()));
  if (status == DS_DATA_EXISTS)
  {
    data->cleanup();
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Cannot persist, data with higher priority already exists.");
  }
  return status;
}

bool DBDiscovery::renderDocument(OzfPathname const& path, std::string& document) const
{
  std::ostringstream os;
  writeXml(os, XmlStr::UTF_8);
  document = os.str();
  if (document.size() <= static_cast<std::size_t>(LARGEST_METADATA))
    return true;
  logTooLarge(path.str(), static_cast<off_t>(document.size()), "DBDiscovery::persist");
  return false;
}

// What can fail without a trace comes first: the rendering, and the flush of
// the payload, where a full disk shows.
DiscoveryStatus DBDiscovery::persistFiles(DBCollectionData& data, OzfPathname const& path,
                                          OzfPathname const& dataPath)
{
  constexpr char OPERATION[] = "DBDiscovery::persist";
  std::string seen;
  {
    MetadataGuard const guard(path.str());
    if (!canOverride(path, seen))
      return DS_DATA_EXISTS;
  }
  std::string document;
  if (!renderDocument(path, document))
    return DS_OPEN_FAILED;
  if (!data.flush())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Collection data update failed");
    return DS_OPEN_FAILED;
  }

  std::optional<MetadataGuard> guard(std::in_place, path.str());
  HeldFile const file = lockForWriting(path, guard);
  if (!file)
    return DS_OPEN_FAILED;
  return replaceFiles(file->get_handle(), seen, document, data, path, dataPath);
}

// Under the guard and the write lock.
DiscoveryStatus DBDiscovery::replaceFiles(int fd, std::string const& seen,
                                          std::string const& document, DBCollectionData& data,
                                          OzfPathname const& path,
                                          OzfPathname const& dataPath) const
{
  constexpr char OPERATION[] = "DBDiscovery::persist";
  struct stat status
  {
  };
  if (::fstat(fd, &status) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Unable to examine " << path.str() << ": " << errorText(errno));
    return DS_OPEN_FAILED;
  }
  if (!isRegular(status, path.str(), OPERATION))
    return DS_OPEN_FAILED;
  // It may have been rewritten since it was looked at.
  std::optional<std::string> stored = readStored(fd, status.st_size);
  if (stored && !stored->empty() && *stored != seen && !priorityAllows(*stored))
    return DS_DATA_EXISTS;

  if (!writeMetadata(fd, document))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Metadata update to " << path.str() << " failed");
    // Leave what was there; an empty file would only be in every reader's way.
    if (status.st_size == 0)
      ::unlink(path.c_str());
    else if (stored)
      writeMetadata(fd, *stored);
    return DS_OPEN_FAILED;
  }
  if (!data.persist(dataPath))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Collection data update failed");
    return DS_OPEN_FAILED;
  }
  if (::fsync(fd) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Unable to flush " << path.str() << ": " << errorText(errno));
    return DS_OPEN_FAILED;
  }
  return DS_SUCCESS;
}

DiscoveryStatus DBDiscovery::expire()
{
  constexpr char OPERATION[] = "DBDiscovery::expire";
  OZF_ASSERT(m_fileLock != nullptr, "m_fileLock", SOURCE, OPERATION);
  OZF_ASSERT(m_fileLock->get_handle() != ACE_INVALID_HANDLE,
             "ACE_INVALID_HANDLE != m_fileLock->get_handle()", SOURCE, OPERATION);
  MetadataGuard const guard(m_heldPath.str());

  if (!upgradeLock())
    return DS_LOGIC_ERROR;
  DiscoveryStatus const status = expireLocked();
  // A record that stays goes on as one that is being read. This converts the
  // lock without a wait.
  if (status != DS_SUCCESS)
    m_fileLock->tryacquire_read(0, 0, 1);
  return status;
}

bool DBDiscovery::upgradeLock()
{
  constexpr char OPERATION[] = "DBDiscovery::expire";
  if (m_fileLock->tryacquire_write_upgrade(0, 0, 1) == 0)
    return true;
  if (m_fileLock->release(0, 0, 1) != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "WARN: Unable to release file lock, errno: " << errno);
  if (m_fileLock->tryacquire_write_upgrade(0, 0, 1) == 0)
    return true;
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "Unable to upgrade lock to expire file, errno: " << errno);
  return false;
}

// Under the guard and the write lock.
DiscoveryStatus DBDiscovery::expireLocked()
{
  constexpr char OPERATION[] = "DBDiscovery::expire";
  setAuthority(nullptr);
  setSubject(nullptr);
  setAttributes(nullptr);
  if (!isFileAt(m_fileLock->get_handle(), m_heldPath.c_str()))
  {
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Was deleted: " << m_heldPath.str());
    return DS_LOGIC_ERROR;
  }
  if (!load())
    return DS_LOGIC_ERROR;
  if (!isExpired(this))
    return DS_NONE_FOUND;

  auto* const collection = dynamic_cast<DBCollectionData*>(getCollectionData());
  OZF_ASSERT(collection != nullptr, "collection", SOURCE, OPERATION);
  if (!collection->expire())
    return DS_LOGIC_ERROR;

  // Deleted before it is unlocked: a writer that waits for this lock would
  // else fill the file just before it goes.
  if (::unlink(m_heldPath.c_str()) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Unable to delete " << m_heldPath.str() << ": " << errorText(errno));
    return DS_LOGIC_ERROR;
  }
  m_fileLock.reset();
  return DS_SUCCESS;
}

void DBDiscovery::generateMetabaseFileName(std::ostringstream& os) const
{
  writeFileName(os, *this, "DBDiscovery::generateMetabaseFileName", "xml");
}

void DBDiscovery::generatecollectionBaseFileName(std::ostringstream& os) const
{
  writeFileName(os, *this, "DBDiscovery::generatecollectionBaseFileName", "dat");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
