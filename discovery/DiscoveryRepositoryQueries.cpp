// The read side: queries, and the registrations kept in the database.

#include "discovery/CombiningIterator.h"
#include "discovery/DiscDB.h"
#include "discovery/DiscDBMem.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryLoopGuard.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/PullExplorerCache.h"
#include "discovery/RemoteDB.h"
#include "ozf/config/HostRole.h"
#include "ozf/orb/Corba.h"

#include <iterator>
#include <optional>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscoveryRepository";

// Whether the registration of another host is in the database.
bool isInCache(ExplorerWrapper const& entry)
{
  AutoDereference<Discovery> const record(getDiscoveryDBDatabase()->newDiscovery(DQ_UNDEFINED));
  record->setSubject(new Subject(entry.getSubject()->getName().str()));
  record->setAuthority(new Authority(entry.getAuthority()->getName().str(), AT_REMOTEPULL));
  return getDiscoveryDBDatabase()->isStored(*record);
}

// Which directory the database is; none while there is nothing of that name.
std::optional<std::pair<dev_t, ino_t>> databaseDirectory()
{
  struct stat status
  {
  };
  if (::stat(getDiscoveryDBDatabase()->getDirectory().c_str(), &status) != 0)
    return std::nullopt;
  return std::pair(status.st_dev, status.st_ino);
}

LoopCounter& remoteQueriesInProgress()
{
  static LoopCounter counter;
  return counter;
}

} // namespace

DiscoveryIterator* DiscoveryRepository::queryDiscoveries(DiscoveryQuery query,
                                                         std::string const& subject,
                                                         std::string const& authority,
                                                         AuthorityType type)
{
  constexpr char const* OPERATION = "DiscoveryRepository::queryDiscoveries";
  OZF_ASSERT(m_discoveryFramework, "m_discoveryFramework", SOURCE, OPERATION);
  if (!isGenericDSOnMaster())
    return queryRemoteDiscoveries(query, subject, authority, type);

  std::vector<AutoDereference<DiscoveryIterator>> iterators;
  if (type != AT_REMOTEPULL)
  {
    AutoDereference<DiscoveryIterator> pulled(
        findPullExplorer(query, getPullExplorers(), subject, authority));
    if (pulled)
      iterators.push_back(std::move(pulled));
  }

  // Before its directory is settled the database has nothing to iterate over.
  AutoDereference<DiscoveryIterator> stored;
  if (getDiscoveryDBDatabase()->isInitialized())
    stored.reset(getDiscoveryDBDatabase()->getIterator(query));
  if (!stored)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "No database iterator found");
    return nullptr;
  }
  stored->setAuthority(authority, type);
  stored->setSubject(subject);
  iterators.push_back(std::move(stored));
  return new CombiningIterator(type, subject, authority, iterators);
}

DiscoveryIterator* DiscoveryRepository::findPullExplorer(DiscoveryQuery query,
                                                         Snapshot const& pullExplorers,
                                                         std::string const& subject,
                                                         std::string const& authority)
{
  AutoDereference<ExplorerIdentity> const identity(new ExplorerIdentity(authority, subject));
  auto const first = pullExplorers->firstMatch(*identity);
  if (first == pullExplorers->end())
    return nullptr;

  // Every entry after the first match is taken as it comes: callers rely on
  // being given the tail of the set.
  AutoDereference<DiscoveryIterator> iterator(
      getDiscoveryMemDatbase()->getIterator(ExplorerTail{pullExplorers, first}, query));
  OZF_ASSERT(dynamic_cast<MemDiscoveryIterator*>(iterator.get()) != nullptr, "discIter", SOURCE,
             "DiscoveryRepository::findPullExplorer");
  return iterator.release();
}

DiscoveryIterator* DiscoveryRepository::queryRemoteDiscoveries(DiscoveryQuery query,
                                                               std::string const& subject,
                                                               std::string const& authority,
                                                               AuthorityType type)
{
  constexpr char const* OPERATION = "DiscoveryRepository::queryRemoteDiscoveries";
  OzfHostname master;
  getMasterServerName(master);
  if (master.empty())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Cannot find master server name, abort connecting to master discovery service");
    return nullptr;
  }

  LoopGuard const inProgress(remoteQueriesInProgress());
  if (inProgress.exceeded())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Hostname detected as remote and/or master, but appears to be connecting back to "
            "self, RemoteHost: "
                << master.exportNarrow());
    return nullptr;
  }

  try
  {
    Remote::DiscoveryService_var const service =
        connectToRemoteDiscoveryService(master, DISCOVERY_SERVICE);
    if (CORBA::is_nil(service))
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to connect to discovery service");
      return nullptr;
    }
    Remote::DiscoveryIterator_var const iterator =
        service->queryDiscoveries(query, type, subject.c_str(), authority.c_str());
    AutoDereference<RemoteDiscoveryIterator> discoveries(
        new RemoteDiscoveryIterator(type, subject, authority, iterator));
    if (discoveries->failure().empty())
      return discoveries.release();
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Failed to query remote discoveries: " << discoveries->failure());
    return nullptr;
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Failed to query remote discoveries: " << corbaExceptionText(exception));
    return nullptr;
  }
}

void DiscoveryRepository::loadPullExplorerCache()
{
  AutoDereference<DiscoveryIterator> const records(
      queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_REMOTEPULL));
  if (!records)
    return;
  restorePullRegistrations(
      *records, m_cachedRegistrations,
      [this](RemoteExplorerPull const& explorer, unsigned priority, Discovery const& record)
      {
        registerExplorer(
            new Subject(record.getSubject()->getName().str()), &explorer, priority,
            new Authority(record.getAuthority()->getName().str(), record.getAuthority()->getType()),
            true);
      });
}

void DiscoveryRepository::dropForgotten()
{
  constexpr std::size_t SOME = 500; // some two milliseconds
  if (isShuttingDown() || !isGenericDSOnMaster())
    return;
  // One that is moved or not mounted for a while has lost nothing.
  auto const directory = databaseDirectory();
  if (!m_announcedIn)
    m_announcedIn = directory;
  if (!directory || directory != m_announcedIn)
    return;
  Snapshot const explorers = getPullExplorers();
  if (m_nextAnnounced >= explorers->size())
    m_nextAnnounced = 0;
  auto at = explorers->begin();
  std::advance(at, m_nextAnnounced);
  for (std::size_t i = 0; i < SOME && at != explorers->end(); ++i, ++at, ++m_nextAnnounced)
  {
    ExplorerWrapper const& entry = **at;
    if (dynamic_cast<RemoteExplorerPull const*>(entry.getExplorer()) == nullptr ||
        !entry.isAnnounced() || isInCache(entry))
      continue;
    // Whoever registers it anew holds the lock until that is in the database.
    LockableGuard const lockableGuard(*this);
    if (!lockableGuard.locked() || isInCache(entry) || databaseDirectory() != m_announcedIn)
      continue;
    m_registrations.dropPull(*at);
    m_cachedRegistrations.giveBack(entry.getSubject()->getName().str());
    OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoveryRepository::dropForgotten",
            "Forgot the explorer of authority " << entry.getAuthority()->getName()
                                                << " for subject " << entry.getSubject()->getName()
                                                << ": its announcement was removed");
  }
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
