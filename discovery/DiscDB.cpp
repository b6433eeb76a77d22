#include "discovery/DiscDB.h"

#include "discovery/DiscDBDiscovery.h"
#include "discovery/DiscDBFiles.h"
#include "discovery/DiscDBIndex.h"
#include "discovery/DiscoveryLog.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/Uri.h"
#include "ozf/base/Wildcard.h"
#include "ozf/config/ProductRoot.h"

#include <ace/Singleton.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";
constexpr char NEXT[] = "DBDiscoveryIterator::getNext";

// A link that leads nowhere counts as there: it deserves its log line.
bool isAbsent(std::string const& path)
{
  struct stat status
  {
  };
  return ::lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

// Whether a refused open leaves it undecided what is there: a file that is
// absent, a link, a directory or a device is decided.
bool saysNothingOfAFile(int error)
{
  constexpr int DECIDED[] = {ENOENT, ELOOP, EISDIR, ENXIO, ENODEV};
  return std::find(std::begin(DECIDED), std::end(DECIDED), error) == std::end(DECIDED);
}

// Whether one of the two keys in the name of a metadata file was cut.
bool holdsCutKey(std::string_view fileName)
{
  auto const first = fileName.find(' ');
  auto const second = fileName.find(' ', first + 1);
  auto const end = fileName.rfind(".xml");
  if (first == std::string_view::npos || second == std::string_view::npos ||
      end == std::string_view::npos || end < second)
    return false;
  return Uri::isCutKey(fileName.substr(first + 1, second - first - 1)) ||
         Uri::isCutKey(fileName.substr(second + 1, end - second - 1));
}

// The pattern of names as shown that a pattern of keys was made of; one that
// was cut inside an escape becomes a little wider.
std::string patternOfNames(std::string_view keys)
{
  std::string pattern;
  while (!keys.empty())
  {
    unsigned value = 0;
    bool const escape = keys.front() == '%';
    if (escape && keys.size() >= 3 &&
        std::from_chars(keys.data() + 1, keys.data() + 3, value, 16).ptr == keys.data() + 3)
    {
      pattern += static_cast<char>(value);
      keys.remove_prefix(3);
      continue;
    }
    if (escape)
      keys.remove_prefix(std::min(keys.find('*'), keys.size()));
    else
    {
      pattern += keys.front();
      keys.remove_prefix(1);
    }
  }
  return pattern;
}

bool matches(std::string const& keys, OzfString const& key, OzfString const& name)
{
  return wildcardcmp(keys, key.str()) == 0 || wildcardcmp(patternOfNames(keys), name.str()) == 0;
}

} // namespace

DiscoveryDBCreator::DiscoveryDBCreator() : m_directory(getDefaultDatabasePath()) {}

void DiscoveryDBCreator::init(std::string const& name)
{
  OZF_ASSERT(!m_init, "SHOULD_NOT_GET_HERE", SOURCE, "DiscoveryDBCreator::init");
  m_directory = OzfPathname::makeFilename(getDefaultDatabasePath(), name).str();
  setupDB();
  m_init = true;
}

DiscoveryIterator* DiscoveryDBCreator::getIterator(DiscoveryQuery) const
{
  OZF_ASSERT(m_init, "m_init", SOURCE, "DiscoveryDBCreator::getIterator");
  std::lock_guard const lock(m_indexMutex);
  return new DBDiscoveryIterator(m_directory.c_str(), *this, m_index);
}

void DiscoveryDBCreator::keepIndex(bool keep)
{
  OZF_ASSERT(m_init, "m_init", SOURCE, "DiscoveryDBCreator::keepIndex");
  std::shared_ptr<DiscoveryIndex> index; // one given up goes without the lock
  if (keep)
    index = std::make_shared<DiscoveryIndex>(m_directory);
  std::lock_guard const lock(m_indexMutex);
  m_index.swap(index);
}

Discovery* DiscoveryDBCreator::newDiscovery(DiscoveryQuery query)
{
  OZF_ASSERT(m_init, "m_init", SOURCE, "DiscoveryDBCreator::newDiscovery");
  // Only the directory of the payload's path counts until it is persisted.
  auto data = std::make_unique<DBCollectionData>(OzfPathname(m_directory + '/'));
  return new DBDiscovery(OzfPathname(m_directory), data.release(), query);
}

Discovery* DiscoveryDBCreator::getDiscovery(char const* metadataFileName) const
{
  int error = 0;
  return getDiscovery(metadataFileName, false, error);
}

Discovery* DiscoveryDBCreator::getDiscovery(char const* metadataFileName, bool mayBeAbsent,
                                            int& error, bool once) const
{
  constexpr char OPERATION[] = "DiscoveryDBCreator::getDiscovery";
  error = 0;
  OzfPathname const path = OzfPathname::makeFilename(m_directory, metadataFileName);

  // Held until the discovery is loaded, and while it is destroyed if it is not.
  std::optional<MetadataGuard> guard(std::in_place, path.str());
  LockWait wait;
  AutoDereference<DBDiscovery> discovery;
  for (int round = 0; round < REPLACED_LIMIT; ++round)
  {
    HeldFile lock(new ACE_File_Lock(ACE_INVALID_HANDLE, false));
    int const fd = ::open(path.c_str(), O_RDWR | DATABASE_FILE_FLAGS);
    if (fd < 0)
    {
      int const reason = errno;
      error = saysNothingOfAFile(reason) ? reason : 0;
      if (!mayBeAbsent || reason != ENOENT || !isAbsent(path.str()))
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to open " << path.str());
      logIfLink(path.str(), reason, OPERATION);
      if (error != 0)
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, path.str() << ": " << errorText(error));
      return nullptr;
    }
    lock->set_handle(fd);
    bool const waited = tryLock(*lock, RecordLock::READ) != 0;
    if (waited && waitLock(*lock, RecordLock::READ, wait, path.str(), guard) != 0)
      break;

    std::string dataPath = path.str();
    dataPath.replace(dataPath.size() - 3, 3, "dat");
    auto data = std::make_unique<DBCollectionData>(OzfPathname(std::move(dataPath)));
    discovery.reset(new DBDiscovery(lock.release(), data.release(), DQ_DISCOVERY_DATA, path));
    if (once)
      discovery->readOnce();
    bool const loaded = discovery->load();
    // Deleted while we waited for the lock? A new file may be in its place.
    if ((waited || !loaded) && !isFileAt(fd, path.c_str()))
      continue;
    if (!loaded)
    {
      error = discovery->readError();
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, path.str() << " could not be loaded");
      return nullptr;
    }
    if (!isExpired(discovery.get()))
      return discovery.release();

    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, metadataFileName << " has expired");
    switch (discovery->expire())
    {
    case DS_SUCCESS:
      return nullptr;
    case DS_NONE_FOUND:
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              metadataFileName << " was modified during the expire and should not be expired");
      return discovery.release();
    case DS_LOGIC_ERROR:
      if (!isFileAt(fd, path.c_str()))
        continue;
      error = discovery->readError();
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, metadataFileName << " could not be expired");
      return nullptr;
    default:
      assertionFailed("SHOULD_NOT_GET_HERE", OPERATION, SOURCE, __LINE__);
    }
  }
  error = ENOLCK;
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to lock " << path.str());
  return nullptr;
}

bool DiscoveryDBCreator::isStored(Discovery const& discovery) const
{
  auto const* const own = dynamic_cast<DBDiscovery const*>(&discovery);
  if (own == nullptr)
    return true;
  std::ostringstream name;
  own->generateMetabaseFileName(name);
  return !isAbsent(OzfPathname::makeFilename(m_directory, name.str()).str());
}

DiscoveryDBCreator* getDiscoveryDBDatabase()
{
  return ACE_Singleton<DiscoveryDBCreator, ACE_Recursive_Thread_Mutex>::instance();
}

DBDiscoveryIterator::DBDiscoveryIterator(char const* dir, DiscoveryDBCreator const& creator,
                                         std::shared_ptr<DiscoveryIndex> index)
    : DiscoveryIterator(AT_ANYANDALL, "*", "*"),
      m_creator(creator),
      m_dirName(dir),
      m_index(std::move(index))
{
}

DBDiscoveryIterator::DBDiscoveryIterator(char const* dir)
    : DBDiscoveryIterator(dir, *getDiscoveryDBDatabase())
{
}

DBDiscoveryIterator::~DBDiscoveryIterator() { close(); }

void DBDiscoveryIterator::close()
{
  if (m_directory != nullptr)
    ::closedir(m_directory);
  m_directory = nullptr;
  m_exhausted = true;
}

// Part of the answer is lost. What lacks memory is not passed over: it ends the
// whole answer.
void DBDiscoveryIterator::failed(int error)
{
  setIncomplete();
  if (error == ENOMEM)
    throw std::bad_alloc();
}

Discovery* DBDiscoveryIterator::getNext()
{
  try
  {
    return findNext();
  }
  catch (...)
  {
    // The walk has gone past the file in hand.
    setIncomplete();
    throw;
  }
}

bool DBDiscoveryIterator::list(Taker const& take)
{
  if (m_index && m_directory == nullptr && !m_exhausted && isPattern())
  {
    try
    {
      if (auto const more = listIndexed(take))
        return *more;
    }
    catch (...)
    {
      setIncomplete();
      throw;
    }
    m_index.reset(); // what is left is walked
  }
  return DiscoveryIterator::list(take);
}

// What list is to return; nothing when there is no index any more.
std::optional<bool> DBDiscoveryIterator::listIndexed(Taker const& take)
{
  using Match = DiscoveryIndex::Match;
  auto const match = [this](std::string_view name)
  {
    if (wildcardcmp(m_pattern, name) == 0)
      return Match::NAME;
    return holdsCutKey(name) ? Match::MAYBE : Match::NONE;
  };
  DiscoveryIndex::Unread unread;
  for (int round = 0; round < REPLACED_LIMIT && m_index->update(); ++round)
  {
    DiscoveryIndex::Listed listed;
    while ((listed = m_index->list(m_listed, match, getAuthorityType(), take, unread)) ==
           DiscoveryIndex::Listed::UNREAD)
    {
      // It may have gone, and is no loss then. What it says will be in the index.
      AutoDereference<Discovery> const discovery(fetch(unread.name.c_str(), true, true));
      if (!discovery)
      {
        if (isAbsent(OzfPathname::makeFilename(m_dirName, unread.name).str()))
          m_index->learnAbsent(unread);
        continue;
      }
      m_index->learn(unread, *discovery);
      if (isWanted(*discovery) && (match(unread.name) == Match::NAME || answers(*discovery)) &&
          !take(ListedDiscovery::of(*discovery)))
        return true;
    }
    m_exhausted = listed == DiscoveryIndex::Listed::END;
    if (listed != DiscoveryIndex::Listed::UNKNOWN)
      return !m_exhausted;
  }
  return std::nullopt;
}

// Makes the pattern; false when it names one file.
bool DBDiscoveryIterator::isPattern()
{
  if (m_pattern.empty())
  {
    AuthorityType const type = getAuthorityType();
    m_pattern = (type == AT_ANYANDALL ? "*" : std::to_string(static_cast<int>(type))) + ' ' +
                getAuthorityFilter() + ' ' + getSubjectFilter() + ".xml";
  }
  return m_pattern.find('*') != std::string::npos;
}

bool DBDiscoveryIterator::openDirectory()
{
  m_directory = ::opendir(m_dirName.c_str());
  if (m_directory != nullptr)
    return true;
  int const error = errno;
  OZF_LOG(getOzfLogger(), 1, SOURCE, NEXT,
          "Unable to open directory " << m_dirName << ": " << errorText(error));
  m_exhausted = true;
  failed(error);
  return false;
}

Discovery* DBDiscoveryIterator::findNext()
{
  if (m_exhausted)
    return nullptr;
  if (!isPattern())
  {
    m_exhausted = true;
    AutoDereference<Discovery> discovery(fetch(m_pattern.c_str(), true));
    return discovery && isWanted(*discovery) ? discovery.release() : nullptr;
  }
  if (m_directory == nullptr && !openDirectory())
    return nullptr;

  for (;;)
  {
    errno = 0;
    dirent const* const entry = ::readdir(m_directory);
    if (entry == nullptr)
      break;
    std::string_view const name(entry->d_name);
    if (!name.ends_with(".xml")) // half of the entries are payloads
      continue;
    if (name <= m_listed) // from the index
      continue;
    bool const named = wildcardcmp(m_pattern, name) == 0;
    if (!named && !holdsCutKey(name))
      continue;
    AutoDereference<Discovery> discovery(fetch(entry->d_name, false));
    if (discovery && isWanted(*discovery) && (named || answers(*discovery)))
      return discovery.release();
  }
  int const error = errno;
  close();
  if (error != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, NEXT,
            "Unable to read directory " << m_dirName << ": " << errorText(error));
    failed(error);
  }
  return nullptr;
}

bool DBDiscoveryIterator::isWanted(Discovery const& discovery) const
{
  return discovery.getAuthority()->getType() != AT_REMOTEPULL ||
         getAuthorityType() == AT_REMOTEPULL;
}

bool DBDiscoveryIterator::answers(Discovery const& discovery) const
{
  Authority const& authority = *discovery.getAuthority();
  Subject const& subject = *discovery.getSubject();
  return (getAuthorityType() == AT_ANYANDALL || getAuthorityType() == authority.getType()) &&
         matches(getAuthorityFilter(), authority.getFileKey(), authority.getName()) &&
         matches(getSubjectFilter(), subject.getFileKey(), subject.getName());
}

Discovery* DBDiscoveryIterator::fetch(char const* name, bool mayBeAbsent, bool once)
{
  int error = 0;
  AutoDereference<Discovery> discovery(m_creator.getDiscovery(name, mayBeAbsent, error, once));
  if (error != 0)
    failed(error);
  return discovery.release();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
