// How a discovery is written. The locks are explained in DiscDBLock.cpp, what a
// failure or a crash leaves in docs/database.md.

#include "discovery/DiscDBDiscovery.h"

#include "discovery/DiscDBFiles.h"
#include "discovery/DiscDataXml.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/WriteCounts.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <sstream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";
constexpr char PERSIST[] = "DBDiscovery::persist";

// Only of what is not there may be said that nothing is stored.
bool saysAbsent(int error) { return error == ENOENT || error == ENOTDIR; }

void logUnopened(std::string const& path, int error, char const* operation)
{
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation, "Unable to open " << path);
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation, path << ": " << errorText(error));
  logIfLink(path, error, operation);
}

void logUnread(std::string const& path, int error, char const* operation)
{
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
          "Unable to read " << path << ": " << errorText(error));
}

void logUnexamined(std::string const& path, int error, char const* operation)
{
  OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
          "Unable to examine " << path << ": " << errorText(error));
}

void logUnflushed(std::string const& path, int error)
{
  OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST,
          "Unable to flush " << path << ": " << errorText(error));
}

// The line may be what there is no memory for.
void logOutOfMemory(char const* operation, char const* result = "nothing was stored") noexcept
{
  try
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation, "Out of memory, " << result);
  }
  catch (std::bad_alloc const&)
  {
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

// A metadata file locked for writing; none when it cannot be had.
struct LockedFile
{
  HeldFile file;
  bool made = false; // by us, just now
};

int make(OzfPathname const& path)
{
  return ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | DATABASE_FILE_FLAGS, 0644);
}

// Opens the file, or makes it when it is missing; tries that first where it is
// likely to be. -1 with errno, which is EEXIST when another was faster.
int openOrMake(OzfPathname const& path, bool likelyMissing, bool& made)
{
  made = true;
  if (likelyMissing)
    if (int const fd = make(path); fd >= 0 || errno != EEXIST)
      return fd;
  made = false;
  int const fd = ::open(path.c_str(), O_RDWR | DATABASE_FILE_FLAGS);
  if (fd >= 0 || errno != ENOENT)
    return fd;
  made = true;
  return make(path);
}

// An empty file that we made would only be in every reader's way. Asked without
// fstat, whose failure may be what brought us here.
void deleteIfEmpty(int fd, OzfPathname const& path)
{
  if (::lseek(fd, 0, SEEK_END) == 0 && ::unlink(path.c_str()) != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST,
            "Unable to delete " << path.str() << ": " << errorText(errno));
}

// Takes a write lock on what path then names. When it cannot be had, log lines
// say so. The guard must outlive the result, which closes the file.
LockedFile lockForWriting(OzfPathname const& path, bool likelyMissing, LockWait& wait,
                          std::optional<MetadataGuard>& guard)
{
  for (int round = 0; round < REPLACED_LIMIT; ++round)
  {
    bool made = false;
    HeldFile file(new ACE_File_Lock(ACE_INVALID_HANDLE, false));
    int const fd = openOrMake(path, likelyMissing && round == 0, made);
    if (fd < 0 && errno == EEXIST)
      continue;
    if (fd < 0)
    {
      logUnopened(path.str(), errno, PERSIST);
      return {};
    }
    file->set_handle(fd);
    int error = 0;
    try
    {
      if (waitLock(*file, RecordLock::WRITE, wait, path.str(), guard) == 0)
      {
        if (isFileAt(fd, path.c_str(), &error))
          return {std::move(file), made};
        if (error == 0)
          continue;
        logUnexamined(path.str(), error, PERSIST);
      }
      else
        OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST, "Unable to lock " << path.str());
    }
    catch (std::bad_alloc const&)
    {
      if (made)
        deleteIfEmpty(fd, path);
      throw;
    }
    if (made)
      deleteIfEmpty(fd, path);
    return {};
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST, "Unable to lock " << path.str());
  return {};
}

// Writes the document, which comes back as it was. Takes memory only where the
// document is not reserved as much as the file has.
bool writeInPlace(int fd, std::string& text)
{
  constexpr char OPERATION[] = "DBDiscovery::writeMetadata";

  // Padded over the whole of an old, longer document, so that a process killed
  // before it truncates leaves no tail of it.
  std::size_t const size = text.size();
  struct stat status
  {
  };
  if (::fstat(fd, &status) == 0 && status.st_size > static_cast<off_t>(size) &&
      status.st_size <= LARGEST_METADATA)
    text.resize(static_cast<std::size_t>(status.st_size), '\n');
  bool const written = writeAll(fd, text);
  ErrnoKeeper const keeper;
  text.resize(size);
  if (!written)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to write metadata");
    return false;
  }
  if (::ftruncate(fd, static_cast<off_t>(size)) != 0)
  {
    ErrnoKeeper const ofTruncation;
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to truncate metadata");
    return false;
  }
  return true;
}

// After a failure: the document of before, or no file where there was none.
bool putBack(int fd, std::optional<std::string>& stored, OzfPathname const& path)
{
  if (!stored || stored->empty())
  {
    if (::unlink(path.c_str()) == 0)
      return true;
    OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST,
            "Unable to delete " << path.str() << ": " << errorText(errno));
    return false;
  }
  if (writeInPlace(fd, *stored) && ::fsync(fd) == 0)
    return true;
  OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST,
          "Unable to put the old document back: " << path.str() << ": " << errorText(errno));
  return false;
}

// The payload takes its place, or the failure is told and false is returned.
bool replacePayload(DBCollectionData& data, OzfPathname const& dataPath)
{
  try
  {
    if (data.persist(dataPath))
      return true;
  }
  catch (std::bad_alloc const&)
  {
    // The lines about what was done may be what there was no memory for.
    if (data.getPath() == dataPath)
      return true;
    logOutOfMemory(PERSIST);
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST, "Collection data update failed");
  return false;
}

// Both files are in their places. False, which is told, when they may not stay
// there.
bool flushLast(int fd, DBCollectionData& data, OzfPathname const& path)
{
  try
  {
    bool const named = data.flushDirectory();
    if (::fsync(fd) == 0)
      return named;
    logUnflushed(path.str(), errno);
  }
  catch (std::bad_alloc const&)
  {
    logOutOfMemory(PERSIST, "what was stored may not be on the disk");
  }
  return false;
}

} // namespace

bool DBDiscovery::priorityAllows(std::string& stored) const
{
  // The second result is the one that counts.
  static_cast<void>(storedPriority(stored));
  auto const priority = storedPriority(stored);
  if (!priority)
    return true;
  return *priority <= (getAttributes() != nullptr ? getAttributes()->getPriority() : 0);
}

bool DBDiscovery::canOverride()
{
  Answer const answer = askForPermission();
  return answer == Answer::YES || answer == Answer::UNREADABLE;
}

DBDiscovery::Answer DBDiscovery::askForPermission()
{
  constexpr char OPERATION[] = "DBDiscovery::canOverride";
  OZF_ASSERT(!m_directory.empty(), "m_directory.size()", SOURCE, OPERATION);
  LockWait wait;
  std::string seen;
  try
  {
    return askForPermission(pathOf(&DBDiscovery::generateMetabaseFileName), wait, seen);
  }
  catch (std::bad_alloc const&)
  {
    logOutOfMemory(OPERATION);
    return Answer::UNKNOWN;
  }
}

// seen is what the decision was made on. When it is no, that is also this
// discovery's text from now on; when it is yes, there is none.
DBDiscovery::Answer DBDiscovery::askForPermission(OzfPathname const& path, LockWait& wait,
                                                  std::string& seen)
{
  Answer const answer = readAndJudge(path, wait, seen);
  if (answer == Answer::YES || answer == Answer::UNREADABLE)
    m_metadata.clear();
  else if (!seen.empty())
    m_metadata = seen;
  return answer;
}

DBDiscovery::Answer DBDiscovery::readAndJudge(OzfPathname const& path, LockWait& wait,
                                              std::string& seen) const
{
  constexpr char OPERATION[] = "DBDiscovery::canOverride";
  std::optional<MetadataGuard> guard(std::in_place, path.str());
  int const fd = ::open(path.c_str(), O_RDONLY | DATABASE_FILE_FLAGS);
  if (fd < 0)
  {
    if (saysAbsent(errno))
      return Answer::YES;
    logUnopened(path.str(), errno, OPERATION);
    return Answer::UNKNOWN;
  }
  ACE_File_Lock lock(fd, false);
  if (waitLock(lock, RecordLock::READ, wait, path.str(), guard) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to acquire read lock " << path.str());
    return Answer::NO;
  }
  // A file that lost its name is not the stored discovery any more.
  int error = 0;
  if (!isFileAt(fd, path.c_str(), &error))
  {
    if (error == 0)
      return Answer::YES;
    logUnexamined(path.str(), error, OPERATION);
    return Answer::UNKNOWN;
  }
  struct stat status
  {
  };
  if (::fstat(fd, &status) == 0 &&
      (status.st_size == 0 || !isMetadataFile(status, path.str(), OPERATION)))
    return Answer::YES;
  error = readBlocks(fd, seen);
  if (error == EFBIG)
    return Answer::YES;
  if (error != 0)
  {
    logUnread(path.str(), error, OPERATION);
    return Answer::UNREADABLE;
  }
  return priorityAllows(seen) ? Answer::YES : Answer::NO;
}

DiscoveryStatus DBDiscovery::open(OpenMode mode, char const* name)
{
  constexpr char OPERATION[] = "DBDiscovery::open";
  if (mode == OM_UPDATE)
  {
    switch (askForPermission())
    {
    case Answer::NO:
      getWriteCounts().add(DS_DATA_EXISTS);
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Cannot open the db database, data with higher priority already exists.");
      return DS_DATA_EXISTS;
    case Answer::UNKNOWN:
      getWriteCounts().add(DS_OPEN_FAILED);
      return DS_OPEN_FAILED;
    case Answer::UNREADABLE: // persist asks again, and refuses
    case Answer::YES:
      break;
    }
  }
  OZF_ASSERT(getCollectionData() != nullptr, "getCollectionData()", SOURCE, OPERATION);
  if (getCollectionData()->open(mode, name) == 0)
  {
    if (mode == OM_UPDATE)
      getWriteCounts().add(DS_OPEN_FAILED);
    return DS_OPEN_FAILED;
  }
  m_persistFailed = false;
  return DS_SUCCESS;
}

bool DBDiscovery::writeMetadata(int fd, std::string const& text)
{
  std::string padded = text;
  return writeInPlace(fd, padded);
}

DiscoveryStatus DBDiscovery::persist()
{
  OZF_ASSERT(!m_fileLock, "!m_fileLock", SOURCE, PERSIST);
  OZF_ASSERT(getAuthority() != nullptr, "getAuthority()", SOURCE, PERSIST);
  OZF_ASSERT(getSubject() != nullptr, "getSubject()", SOURCE, PERSIST);
  OZF_ASSERT(getCollectionData() != nullptr, "getCollectionData()", SOURCE, PERSIST);
  auto* const data = dynamic_cast<DBCollectionData*>(getCollectionData());
  OZF_ASSERT(data != nullptr, "collection", SOURCE, PERSIST);

  DiscoveryStatus status = DS_OPEN_FAILED;
  TimedWrite const timed(status);
  try
  {
    OzfPathname const path = pathOf(&DBDiscovery::generateMetabaseFileName);
    if (m_persistFailed)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST,
              "Refused to persist again what failed before: " << path.str());
      return DS_OPEN_FAILED;
    }
    // What was written is gone or lost its place after a failure: once more would
    // store an empty payload.
    m_persistFailed = true;
    status = persistFiles(*data, path, pathOf(&DBDiscovery::generatecollectionBaseFileName));
  }
  catch (std::bad_alloc const&)
  {
    logOutOfMemory(PERSIST);
  }
  m_persistFailed = status != DS_SUCCESS;
  if (status == DS_DATA_EXISTS)
  {
    data->cleanup();
    OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST,
            "Cannot persist, data with higher priority already exists.");
  }
  return status;
}

OzfPathname DBDiscovery::pathOf(NameWriter writeName) const
{
  std::ostringstream name;
  name.exceptions(std::ios::badbit); // or else half of a name for want of memory
  (this->*writeName)(name);
  return OzfPathname::makeFilename(m_directory.str(), name.str());
}

bool DBDiscovery::renderDocument(OzfPathname const& path, std::string& document) const
{
  std::ostringstream os;
  os.exceptions(std::ios::badbit); // or else half of a document for want of memory
  writeXml(os, XmlStr::UTF_8);
  document = os.str();
  if (document.size() <= static_cast<std::size_t>(LARGEST_METADATA))
    return true;
  logTooLarge(path.str(), static_cast<off_t>(document.size()), PERSIST);
  return false;
}

// What can fail without a trace comes first: the rendering, and the flush of
// the payload, where a full disk shows.
DiscoveryStatus DBDiscovery::persistFiles(DBCollectionData& data, OzfPathname const& path,
                                          OzfPathname const& dataPath)
{
  std::string seen;
  LockWait wait;
  if (Answer const answer = askForPermission(path, wait, seen); answer != Answer::YES)
    return answer == Answer::NO ? DS_DATA_EXISTS : DS_OPEN_FAILED;
  std::string document;
  if (!renderDocument(path, document))
    return DS_OPEN_FAILED;
  if (!data.flush(dataPath.filename(), document))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST, "Collection data update failed");
    return DS_OPEN_FAILED;
  }

  std::optional<MetadataGuard> guard(std::in_place, path.str());
  LockedFile const locked = lockForWriting(path, seen.empty(), wait, guard);
  if (!locked.file)
    return DS_OPEN_FAILED;
  int const fd = locked.file->get_handle();
  DiscoveryStatus status = DS_OPEN_FAILED;
  try
  {
    std::optional<std::string> stored;
    status = readStored(fd, seen, stored, path);
    if (status == DS_SUCCESS)
      return replaceFiles(fd, stored, document, data, path, dataPath);
  }
  catch (std::bad_alloc const&)
  {
    if (locked.made)
      deleteIfEmpty(fd, path);
    throw;
  }
  if (locked.made)
    deleteIfEmpty(fd, path);
  return status;
}

// Under the guard and the write lock: what is stored now, none when it is too
// large for a document. It may have been rewritten since it was looked at.
DiscoveryStatus DBDiscovery::readStored(int fd, std::string const& seen,
                                        std::optional<std::string>& stored,
                                        OzfPathname const& path) const
{
  struct stat status
  {
  };
  if (::fstat(fd, &status) != 0)
  {
    logUnexamined(path.str(), errno, PERSIST);
    return DS_OPEN_FAILED;
  }
  if (!isDatabaseFile(status, path.str(), PERSIST))
    return DS_OPEN_FAILED;
  if (status.st_size > LARGEST_METADATA)
    return DS_SUCCESS;
  stored.emplace();
  // What cannot be read can be neither judged nor put back.
  if (int const error = readBlocks(fd, *stored); error != 0)
  {
    logUnread(path.str(), error, PERSIST);
    return DS_OPEN_FAILED;
  }
  bool const allowed = stored->empty() || *stored == seen || priorityAllows(*stored);
  return allowed ? DS_SUCCESS : DS_DATA_EXISTS;
}

// Under the guard and the write lock.
DiscoveryStatus DBDiscovery::replaceFiles(int fd, std::optional<std::string>& stored,
                                          std::string const& document, DBCollectionData& data,
                                          OzfPathname const& path,
                                          OzfPathname const& dataPath) const
{
  // There may be no memory to put it back with.
  if (stored)
    stored->reserve(std::max(stored->size(), document.size()));
  bool written = false;
  bool flushed = false;
  try
  {
    written = writeMetadata(fd, document);
    // Before the rename, so that no power cut leaves the new payload beside the
    // old document: that nobody could mend. The reverse the next start does.
    flushed = written && ::fdatasync(fd) == 0;
    if (!written)
      OZF_LOG(getOzfLogger(), 1, SOURCE, PERSIST, "Metadata update to " << path.str() << " failed");
    else if (!flushed)
      logUnflushed(path.str(), errno);
    else if (replacePayload(data, dataPath))
      return flushLast(fd, data, path) ? DS_SUCCESS : DS_OPEN_FAILED;
  }
  catch (std::bad_alloc const&)
  {
    logOutOfMemory(PERSIST);
  }
  if ((stored || written) && putBack(fd, stored, path) && flushed)
    data.forgetTarget();
  return DS_OPEN_FAILED;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
