// Discoveries in the file database. The locks are explained in DiscDBLock.cpp.

#include "discovery/DiscDBDiscovery.h"

#include "discovery/DiscDBFiles.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/MetadataCache.h"
#include "ozf/base/SystemError.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <sstream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";

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
  if (!m_fileLock)
    return;
  try
  {
    MetadataGuard const guard(m_heldPath.str());
    m_fileLock.reset();
  }
  catch (std::bad_alloc const&)
  {
    // Of the guard. The end of the process would close the file as well.
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

  m_readError = 0;
  struct stat status
  {
  };
  bool read = false;
  int error = 0;
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
    read = readExactly(fd, m_metadata, static_cast<std::size_t>(status.st_size));
    error = read ? 0 : errno;
  }
  else
  {
    error = readBlocks(fd, m_metadata);
    read = error == 0;
  }
  if (read)
    return loadInternal();
  m_readError = error == EFBIG ? 0 : error;
  if (m_readError != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Unable to read " << m_heldPath.str() << ": " << errorText(m_readError));
  return false;
}

bool DBDiscovery::load(char const* text) { return load(std::string(text != nullptr ? text : "")); }

bool DBDiscovery::load(std::string text)
{
  m_metadata = std::move(text);
  return loadInternal();
}

// Parts that are there already would be part of the result, and a failure of
// before is told until a parse.
bool DBDiscovery::parseText(std::string const& text)
{
  MetadataCache& cache = getMetadataCache();
  bool const fresh = getAuthority() == nullptr && getSubject() == nullptr &&
                     getAttributes() == nullptr && lastError().empty();
  if (fresh && cache.find(text, *this))
  {
    setReadsAlike();
    return true;
  }
  if (!parseBuffer(text))
    return false;
  if (fresh && !m_once && getAuthority() != nullptr && getSubject() != nullptr)
    cache.keep(text, *this);
  return true;
}

bool DBDiscovery::loadInternal()
{
  constexpr char OPERATION[] = "DBDiscovery::loadInternal";

  // Parsing replaces parts, which empties m_metadata: it must not be the
  // parser's buffer.
  std::string text = std::move(m_metadata);
  m_metadata.clear();
  bool const parsed = parseText(text);
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
