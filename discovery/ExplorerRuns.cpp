#include "discovery/ExplorerRuns.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "ExplorerRuns";

using Clock = std::chrono::steady_clock;

// Of the process, in bytes; 0 when it cannot be had.
std::int64_t residentMemory()
{
  std::ifstream statm("/proc/self/statm");
  std::int64_t total = 0;
  std::int64_t resident = 0;
  return statm >> total >> resident ? resident * sysconf(_SC_PAGESIZE) : 0;
}

std::chrono::milliseconds since(Clock::time_point begin)
{
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
}

std::string inSeconds(std::chrono::milliseconds time)
{
  auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
  return std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
}

} // namespace

// Guarded by the mutex of the runs but for what does not change.
struct ExplorerRuns::Progress
{
  std::shared_ptr<ExplorerRecord> const record;
  Clock::time_point const begin;
  OzfObjTime const beginTime;
  std::chrono::milliseconds const budget;
  std::function<void()> onLate;
  bool late = false;
};

// The thread that looks for late runs. There is one from the first run on; it sleeps
// until the next budget ends.
struct ExplorerRuns::Watch
{
  std::condition_variable changed; // with the mutex of the runs
  Clock::time_point next = Clock::time_point::max();
  bool ending = false;
  std::thread thread;
};

// ---- records ----

ExplorerRecord::ExplorerRecord(ExplorerRuns& runs, Description description)
    : m_runs(runs),
      m_description(std::move(description)),
      m_suspect{nameOf(m_description.kind), m_description.authority, m_description.subject,
                m_description.origin}
{
}

CrashSuspect ExplorerRecord::startSuspect() const
{
  CrashSuspect suspect = m_suspect;
  suspect.what = "start " + suspect.what;
  return suspect;
}

bool ExplorerRecord::isLeftOut() const
{
  return m_notStarted || getExplorerCrashes().isLeftOut(m_suspect);
}

ExplorerRecord::Now ExplorerRecord::now() const
{
  int const crashes = getExplorerCrashes().count(m_suspect);
  bool const leftOut = isLeftOut();
  std::lock_guard const guard(m_runs.m_mutex);
  Now now = m_now;
  if (leftOut && now.state == IDLE)
    now.state = LEFT_OUT;
  if (now.state == LEFT_OUT || (crashes != 0 && now.runs == 0 && now.result.empty()))
  {
    now.result = now.state == LEFT_OUT ? nameOf(LEFT_OUT) : "crashed";
    now.well = false;
  }
  return now;
}

void ExplorerRecord::amend(OzfObjTime const& run, std::string const& result, bool well)
{
  std::lock_guard const guard(m_runs.m_mutex);
  if (m_now.lastRun != run)
    return;
  if (m_now.well && !well && m_now.runs != 0)
    ++m_now.failures;
  m_now.result = result;
  m_now.well = well;
  if (m_now.runs != 0)
    m_now.lastSuccess = well ? run : m_successBefore;
}

// ---- all of them ----

ExplorerRuns::ExplorerRuns() : m_watch(std::make_unique<Watch>()) {}

ExplorerRuns::~ExplorerRuns()
{
  {
    std::lock_guard const guard(m_mutex);
    m_watch->ending = true;
  }
  m_watch->changed.notify_all();
  if (m_watch->thread.joinable())
    m_watch->thread.join();
}

std::shared_ptr<ExplorerRecord> ExplorerRuns::declare(ExplorerRecord::Description description)
{
  std::shared_ptr<ExplorerRecord> const record(new ExplorerRecord(*this, std::move(description)));
  std::lock_guard const guard(m_mutex);
  // Seldom, so that many are declared in no time.
  if (m_records.size() >= m_tidyAt)
  {
    std::erase_if(m_records, [](auto const& known) { return known.second.expired(); });
    m_tidyAt = std::max(LEAST_TIDY, 2 * m_records.size());
  }
  m_records.emplace(m_declared++, record);
  return record;
}

std::vector<std::shared_ptr<ExplorerRecord>> ExplorerRuns::all() const
{
  std::vector<std::shared_ptr<ExplorerRecord>> result;
  std::lock_guard const guard(m_mutex);
  for (auto const& known : m_records)
    if (auto record = known.second.lock())
      result.push_back(std::move(record));
  return result;
}

bool ExplorerRuns::isLate(ExplorerRecord const& record) const
{
  void const* const explorer = record.description().explorer;
  std::lock_guard const guard(m_mutex);
  return std::any_of(m_inProgress.begin(), m_inProgress.end(),
                     [&](auto const& run)
                     {
                       return run->late && (run->record.get() == &record ||
                                            (explorer != nullptr &&
                                             run->record->description().explorer == explorer));
                     });
}

std::vector<ExplorerRuns::Unfinished> ExplorerRuns::unfinished() const
{
  std::vector<Unfinished> result;
  std::lock_guard const guard(m_mutex);
  for (auto const& run : m_inProgress)
    result.push_back({run->record, since(run->begin), run->late});
  return result;
}

bool ExplorerRuns::hasOnlyLateCollections() const
{
  bool any = false;
  for (auto const& run : m_inProgress)
    if (run->record->description().kind == ExplorerRecord::PULL)
    {
      if (!run->late)
        return false;
      any = true;
    }
  return any;
}

bool ExplorerRuns::takeStep(std::function<void()> step)
{
  auto const taken = std::make_shared<bool>(false);
  std::thread thread(
      [this, taken, action = std::move(step)]
      {
        action();
        std::lock_guard const guard(m_mutex);
        *taken = true;
        m_watch->changed.notify_all();
      });
  bool done = false;
  {
    std::unique_lock lock(m_mutex);
    ++m_steps;
    // For what else is waited for.
    constexpr std::chrono::seconds GRACE(2);
    for (;;)
    {
      m_watch->changed.wait(lock, [&] { return *taken || hasOnlyLateCollections(); });
      if (*taken || !m_watch->changed.wait_for(lock, GRACE,
                                               [&] { return *taken || !hasOnlyLateCollections(); }))
        break;
    }
    done = *taken;
    --m_steps;
  }
  if (done)
    thread.join();
  else
    thread.detach();
  return done;
}

std::chrono::milliseconds ExplorerRuns::budget()
{
  return std::chrono::seconds(getConfiguration()->number(configKey("EXPLORER_BUDGET_SECONDS")));
}

std::chrono::milliseconds ExplorerRuns::budgetOnRequest()
{
  return std::min<std::chrono::milliseconds>(budget(), REQUEST_TIMEOUT);
}

// ---- the watch ----

void ExplorerRuns::watch()
{
  std::unique_lock lock(m_mutex);
  while (!m_watch->ending)
  {
    auto const now = Clock::now();
    m_watch->next = Clock::time_point::max();
    std::vector<std::shared_ptr<Progress>> late;
    for (auto const& run : m_inProgress)
    {
      if (run->late)
        continue;
      auto const end = run->begin + run->budget;
      if (end > now)
      {
        m_watch->next = std::min(m_watch->next, end);
        continue;
      }
      run->late = true;
      auto& state = run->record->m_now;
      state.state = ExplorerRecord::LATE;
      state.lastRun = run->beginTime;
      state.result = "late";
      state.well = false;
      ++state.lateRuns;
      late.push_back(run);
    }
    if (late.empty())
    {
      if (m_watch->next == Clock::time_point::max())
        m_watch->changed.wait(lock);
      else
        m_watch->changed.wait_until(lock, m_watch->next);
      continue;
    }
    lock.unlock();
    for (auto const& run : late)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, "ExplorerRuns::watch",
              "Explorer " << run->record->name() << " is late: it has been running for "
                          << inSeconds(since(run->begin)) << ", and may for "
                          << inSeconds(run->budget) << "; it is not run again before it returns");
      if (run->onLate)
        run->onLate();
    }
    late.clear();
    m_watch->changed.notify_all();
    lock.lock();
  }
}

// ---- a run ----

ExplorerRun::ExplorerRun(std::shared_ptr<ExplorerRecord> record, std::chrono::milliseconds budget,
                         std::function<void()> onLate)
    : m_mark(record->suspect()),
      m_progress(new ExplorerRuns::Progress{std::move(record), Clock::now(), OzfObjTime::now(),
                                            budget, std::move(onLate)}),
      m_memoryBefore(residentMemory())
{
  ExplorerRecord& own = *m_progress->record;
  ExplorerRuns& runs = own.m_runs;
  ExplorerRuns::Watch& watch = *runs.m_watch;
  std::lock_guard const guard(runs.m_mutex);
  runs.m_inProgress.insert(m_progress);
  ++own.m_running;
  if (own.m_now.state == ExplorerRecord::IDLE)
    own.m_now.state = ExplorerRecord::RUNNING;
  try
  {
    if (!watch.thread.joinable())
      watch.thread = std::thread([&runs] { runs.watch(); });
  }
  catch (std::system_error const& error)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "ExplorerRun::ExplorerRun",
            "Unable to start the thread that looks for late explorers: " << error.what());
  }
  if (m_progress->begin + budget < watch.next)
    watch.changed.notify_all();
}

ExplorerRun::~ExplorerRun() { end(); }

bool ExplorerRun::end()
{
  if (m_ended)
    return m_late;
  m_ended = true;
  ExplorerRecord& own = *m_progress->record;
  ExplorerRuns& runs = own.m_runs;
  auto const took = Clock::now() - m_progress->begin;
  std::int64_t const memory = m_memory.value_or(residentMemory() - m_memoryBefore);
  {
    std::lock_guard const guard(runs.m_mutex);
    runs.m_inProgress.erase(m_progress);
    m_late = m_progress->late;
    auto& state = own.m_now;
    --own.m_running;
    bool const othersLate =
        std::any_of(runs.m_inProgress.begin(), runs.m_inProgress.end(),
                    [&](auto const& run) { return run->late && run->record.get() == &own; });
    if (!othersLate)
      state.state = own.m_running == 0 ? ExplorerRecord::IDLE : ExplorerRecord::RUNNING;
    ++state.runs;
    state.failures += m_well ? 0 : 1;
    state.lastRun = m_progress->beginTime;
    own.m_successBefore = state.lastSuccess;
    if (m_well)
      state.lastSuccess = m_progress->beginTime;
    state.took = std::chrono::duration_cast<std::chrono::microseconds>(took);
    state.memory = memory;
    if (!othersLate)
    {
      state.result = m_result.empty() ? "nothing came of it" : m_result;
      state.well = m_well;
    }
  }
  if (runs.m_steps != 0)
    runs.m_watch->changed.notify_all();
  if (m_late)
    OZF_LOG(getOzfLogger(), 1, SOURCE, "ExplorerRun::end",
            "Explorer " << own.name() << " has returned after "
                        << inSeconds(std::chrono::duration_cast<std::chrono::milliseconds>(took)));
  return m_late;
}

OzfObjTime const& ExplorerRun::began() const noexcept { return m_progress->beginTime; }

void ExplorerRun::finish(std::string const& result, bool well, std::optional<std::int64_t> memory)
{
  m_result = result;
  m_well = well;
  m_memory = memory;
}

bool isInOrder(DiscoveryStatus status)
{
  return status == DS_SUCCESS || status == DS_NONE_FOUND || status == DS_DATA_EXISTS;
}

ExplorerRuns& getExplorerRuns()
{
  // Not destroyed: a late run may end after everything else.
  static auto* const instance = new ExplorerRuns;
  return *instance;
}

char const* nameOf(ExplorerRecord::Kind kind)
{
  switch (kind)
  {
  case ExplorerRecord::PULL:
    return "pull";
  case ExplorerRecord::SCRIPT:
    return "script";
  default:
    return "push";
  }
}

char const* nameOf(ExplorerRecord::State state)
{
  switch (state)
  {
  case ExplorerRecord::RUNNING:
    return "running";
  case ExplorerRecord::LATE:
    return "late";
  case ExplorerRecord::LEFT_OUT:
    return "left out";
  default:
    return "idle";
  }
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
