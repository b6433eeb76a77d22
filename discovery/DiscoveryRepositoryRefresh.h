// Restarting the push timers of all clients.

#pragma once

#include "discovery/Export.h"
#include "ozf/sync/OzfTask.h"

#include <ace/Thread_Manager.h>

#include <mutex>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// On the master: asks the discovery service of one known client after the other
// to restart its push timer. Clients that cannot be connected to are passed
// over; one that fails in the call itself ends the task, and those after it are
// not asked. So does the end of the service.
class TQ_EXPORT RefreshDiscoveryTask : public OzfTask
{
public:
  RefreshDiscoveryTask();

protected:
  int ozfsvc() override;

private:
  ACE_Thread_Manager m_threads; // its own, so that waiting waits for nobody else
};

class TQ_EXPORT DiscoveriesThreadMgr
{
public:
  // Starts the task on a new thread; false when it is running already or the
  // repository shuts down.
  bool restartAllPushTimers();

  // Returns when the task is not running. Any thread but the task's own.
  void waitForRefresh();

private:
  std::mutex m_mutex; // makes the look and the start one step
  RefreshDiscoveryTask m_task;
};

// The process's one manager, made on first use.
TQ_EXPORT DiscoveriesThreadMgr& getDiscoveriesThreadMgr();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
