#include "explorers/ScriptWorkers.h"

#include "discovery/ExplorerPayload.h"
#include "scripts/ScriptPayload.h"

#include <exception>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

// A run ends so long after its time-out at the latest, unless even SIGKILL does not end it.
constexpr std::chrono::seconds BEYOND_TIMEOUT(5);
constexpr std::int64_t KIBIBYTE = 1024;

// Makes of what was printed what is to be stored.
void finish(ScriptResult& result)
{
  auto& outcome = result.outcome;
  auto const& described = result.job.sidecar.facts;
  std::vector<Scripts::ScriptItem> items;
  std::string const output = std::exchange(outcome.output, {});
  if (!outcome.failure.empty() || !Scripts::parseScriptOutput(output, items, outcome.failure) ||
      !Scripts::obeysDescription(described, items, outcome.failure))
    return;
  result.items = items.size();
  result.document = Scripts::itemsDocument(result.job.file.name, result.job.subject, items);
  result.filterDocument = filterDocument(*Scripts::describeItems(described, items));
}

ScriptResult run(ScriptJob job, Scripts::RunStop const& stop)
{
  ScriptResult result;
  result.job = std::move(job);
  ExplorerRun told(result.job.record,
                   std::chrono::seconds(result.job.sidecar.timeout) + BEYOND_TIMEOUT);
  result.began = told.began();
  auto& outcome = result.outcome;
  try
  {
    outcome = Scripts::runScript(result.job.file, result.job.sidecar, result.job.subject, stop);
    finish(result);
  }
  catch (std::exception const& exception)
  {
    outcome.failure = exception.what();
  }
  if (outcome.failure.empty())
    told.finish(describe(DS_SUCCESS), true, outcome.memory * KIBIBYTE);
  else
    told.finish(outcome.failure, outcome.stopped, outcome.memory * KIBIBYTE);
  return result;
}

} // namespace

void ScriptWorkers::submit(ScriptJob job)
{
  std::unique_lock lock(m_mutex);
  if (m_over)
    return;
  if (m_idle <= m_jobs.size() && m_threads.size() < AT_ONCE)
    try
    {
      m_threads.emplace_back([this] { work(); });
    }
    catch (std::exception const&)
    {
      if (m_threads.empty())
        throw;
    }
  m_jobs.push_back(std::move(job));
  m_changed.notify_one();
}

std::vector<ScriptResult> ScriptWorkers::take()
{
  std::lock_guard const guard(m_mutex);
  return std::exchange(m_results, {});
}

void ScriptWorkers::stop()
{
  {
    std::lock_guard const guard(m_mutex);
    m_over = true;
    m_jobs.clear();
  }
  m_stop.stop();
  m_changed.notify_all();
  for (std::thread& thread : m_threads)
    thread.join();
  m_threads.clear();
}

void ScriptWorkers::work()
{
  std::unique_lock lock(m_mutex);
  for (;;)
  {
    ++m_idle;
    m_changed.wait(lock, [this] { return m_over || !m_jobs.empty(); });
    --m_idle;
    if (m_over)
      return;
    ScriptJob job = std::move(m_jobs.front());
    m_jobs.pop_front();
    lock.unlock();
    ScriptResult result = run(std::move(job), m_stop);
    lock.lock();
    m_results.push_back(std::move(result));
  }
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
