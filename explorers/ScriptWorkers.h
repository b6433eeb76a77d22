// The threads on which scripts run.

#pragma once

#include "discovery/ExplorerRuns.h"
#include "ozf/base/OzfObjTime.h"
#include "ozf/xml/OzfQuery.h"
#include "scripts/ScriptRun.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

struct ScriptJob
{
  Scripts::ScriptFile file;
  Scripts::Sidecar sidecar;
  std::string subject;
  std::shared_ptr<ExplorerRecord> record; // that its run is told to
};

struct ScriptResult
{
  ScriptJob job;
  OzfObjTime began;
  Scripts::RunOutcome outcome; // without the output; failure also when that was of no use
  std::size_t items = 0;
  std::string document; // what is to be stored
  std::string filterDocument;
};

// Runs what it is given in that order, at most four at once. Used by one thread.
class ScriptWorkers
{
public:
  static constexpr std::size_t AT_ONCE = 4;

  ScriptWorkers() = default;
  ~ScriptWorkers() { stop(); }
  ScriptWorkers(ScriptWorkers const&) = delete;
  ScriptWorkers& operator=(ScriptWorkers const&) = delete;

  // Throws what the making of a thread throws when there is none yet.
  void submit(ScriptJob job);

  // The results since the last call.
  std::vector<ScriptResult> take();

  // Ends the runs and the threads; what was not taken is gone. Nothing is run any more.
  // Returns within a second, or some more for a run that even SIGKILL does not end.
  void stop();

private:
  void work();

  Scripts::RunStop m_stop;
  std::mutex m_mutex; // all below but the threads
  std::condition_variable m_changed;
  std::deque<ScriptJob> m_jobs;
  std::vector<ScriptResult> m_results;
  std::size_t m_idle = 0;
  bool m_over = false;
  std::vector<std::thread> m_threads;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
