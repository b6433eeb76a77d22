// The refresh of all clients, and the list of them.

#include "discovery/DiscoveryRepositoryRefresh.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/RemoteDBDrain.h"
#include "discovery/Researcher.h"
#include "ozf/base/FreeMemory.h"
#include "ozf/base/SpareMemory.h"
#include "ozf/config/HostRole.h"
#include "ozf/orb/Corba.h"
#include "ozf/orb/Orb.h"
#include "ozf/plugin/CurrentException.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <chrono>
#include <new>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscoveryRepository";

// What reading one record may take, in which a host may answer just in time
// again and again.
constexpr std::chrono::seconds MOST_FOR_A_RECORD(60);

void addClients(char const* authority, char const* noneFound, std::set<OzfString>& clients)
{
  AutoDereference<AuthSubIterator> const discoveries =
      getAuthSubIterator(DQ_FILTER_DATA, "*", authority, AT_ANYANDALL);
  if (!discoveries)
  {
    OZF_LOG(getOzfLogger(), 4, SOURCE, "Researcher::getDiscoveredClientList", noneFound);
    return;
  }
  discoveries->dropItems();
  // Every step opens a payload, which may lie on a host that does not answer.
  while (!getDiscoveryRepository().isShuttingDown())
  {
    ReadDeadline const deadline(MOST_FOR_A_RECORD);
    // Or run an explorer of this host: what that throws concerns one record.
    bool over = false;
    callGuarded(
        [&]
        {
          AutoDereference<CollectionItemIterator> const items(
              discoveries->getNextCollectionItemIterator(nullptr));
          over = !items;
          if (items)
            clients.insert(items->getSubject().getName());
        },
        [authority](std::string const& reason)
        {
          OZF_LOG(getOzfLogger(), 1, SOURCE, "Researcher::getDiscoveredClientList",
                  "Passed over a record of authority " << authority << ": " << reason);
        });
    if (over)
    {
      if (discoveries->isIncomplete())
        OZF_LOG(getOzfLogger(), 1, SOURCE, "Researcher::getDiscoveredClientList",
                "Some records of authority " << authority
                                             << " are missing, they could not be read");
      return;
    }
  }
}

// The refresh calls out on a thread that the ORB did not make.
void makeThreadKnown(DiscoveryRepository const& repository)
{
  Orb* const orb = repository.findOrb();
  if (OrbCore* const core = orb == nullptr ? nullptr : orb->getOrbCore(); core != nullptr)
    core->lf_strategy().set_upcall_thread(core->leader_follower());
}

} // namespace

std::set<OzfString> DiscoveryRepository::getDiscoveredClientList()
{
  std::set<OzfString> clients;
  addClients("volume", "No windows clients found", clients);
  addClients("filesystem", "No unix clients found", clients);
  returnFreeMemory();
  return clients;
}

RefreshDiscoveryTask::RefreshDiscoveryTask() { thr_mgr(&m_threads); }

int RefreshDiscoveryTask::ozfsvc()
{
  constexpr char const* OPERATION = "RefreshDiscoveryTask::ozfsvc";
  DiscoveryRepository& repository = getDiscoveryRepository();
  makeThreadKnown(repository);
  for (OzfString const& client : repository.getDiscoveredClientList())
  {
    if (repository.isShuttingDown())
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "tqdisco shutting down, aborting refresh task");
      return 0;
    }
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Restarting push timers on client: " << client);
    try
    {
      OzfHostname host;
      host.setHostname(client.str());
      Remote::DiscoveryService_var const service =
          repository.connectToRemoteDiscoveryService(host, DISCOVERY_SERVICE);
      if (CORBA::is_nil(service))
      {
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
                "Failed to connect to client discovery service");
        continue;
      }
      service->restartLocalPushTimer();
    }
    catch (CORBA::Exception const& exception)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Caught CORBA exception connecting to remote service");
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, corbaExceptionText(exception));
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "The refresh ended at client " << client);
      return 0;
    }
  }
  return 0;
}

bool DiscoveriesThreadMgr::restartAllPushTimers()
{
  std::lock_guard guard(m_mutex);
  // The end of the service has waited for the task, or is about to.
  if (m_task.running() || getDiscoveryRepository().isShuttingDown())
    return false;
  // Collects the thread of the run before, which has ended.
  m_task.wait();
  // ACE uses what it describes a thread by, whether it got the memory or not.
  SpareMemory const forThread;
  return m_task.activate() == 0;
}

void DiscoveriesThreadMgr::waitForRefresh()
{
  std::lock_guard guard(m_mutex);
  m_task.wait();
}

namespace
{

struct ProcessThreadMgr : DiscoveriesThreadMgr
{
  ProcessThreadMgr()
  {
    getDiscoveryRepository().setRefreshWait([this] { waitForRefresh(); });
  }
};

} // namespace

DiscoveriesThreadMgr& getDiscoveriesThreadMgr()
{
  // ACE's manager of threads goes by what it made for itself, whether it got the memory
  // or not, up to the end of the process.
  SpareMemory const forFirstUse;
  auto* const manager = ACE_Singleton<ProcessThreadMgr, ACE_Recursive_Thread_Mutex>::instance();
  if (manager == nullptr)
    throw std::bad_alloc();
  return *manager;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
