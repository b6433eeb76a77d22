#include "explorers/ScriptsExplorer.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerPayload.h"
#include "discovery/TimedExplorer.h"
#include "ozf/base/AsciiCase.h"

#include <algorithm>
#include <exception>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "ScriptsExplorer";
constexpr char OPERATION[] = "ScriptsExplorer::explore";

constexpr std::chrono::seconds STORE_AGAIN(60);
constexpr std::chrono::seconds MOST_STORING(2); // of a pass

// Of the scripts that are found together so many begin at once, and as many more each
// second.
constexpr std::size_t AT_ONCE = ScriptWorkers::AT_ONCE;

std::string inLowerCase(std::string text)
{
  std::transform(text.begin(), text.end(), text.begin(), asciiLower);
  return text;
}

// A share of the whole, the same for this script on this host at every start.
std::chrono::milliseconds shareOf(std::chrono::milliseconds whole, std::string const& subject,
                                  std::string const& name)
{
  constexpr std::size_t PARTS = 1000;
  auto const part = std::hash<std::string>()(subject + '/' + name) % PARTS;
  return whole * static_cast<long>(part) / static_cast<long>(PARTS);
}

} // namespace

ScriptsExplorer::ScriptsExplorer(std::string folder, Owner owner,
                                 std::function<Clock::time_point()> clock)
    : m_folder(std::move(folder)), m_owner(std::move(owner)), m_clock(std::move(clock))
{
}

void ScriptsExplorer::explore(Authority const&, Subject const& subject, CollectionAttributes const&,
                              AutoDereference<OZFRefCounted>&, DiscoveryFactory* factory,
                              DiscoveryResult& result)
{
  result.discStatus = DS_LOGIC_ERROR;
  result.retryInterval = 0;
  if (factory == nullptr)
    return;
  try
  {
    look(subject.getName().str());
    takeResults();
    result.discStatus = storeResults(subject, *factory);
    begin(subject.getName().str());
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "The scripts could not be looked after: " << exception.what());
  }
}

void ScriptsExplorer::stopExploration(Authority const&, Subject const&,
                                      AutoDereference<OZFRefCounted>&)
{
  m_workers.stop();
}

OzfObjTime ScriptsExplorer::getLastExplorationTime()
{
  std::lock_guard const guard(m_mutex);
  return m_lastExploration;
}

void ScriptsExplorer::setLastExplorationTime(OzfObjTime const& time)
{
  std::lock_guard const guard(m_mutex);
  m_lastExploration = time;
  m_allDue = m_allDue || time.isZero();
}

bool ScriptsExplorer::standsFor(std::string const& authority)
{
  std::lock_guard const guard(m_mutex);
  return m_names.contains(inLowerCase(authority));
}

void ScriptsExplorer::makeDue(std::string const& authority)
{
  std::lock_guard const guard(m_mutex);
  m_due.insert(inLowerCase(authority));
}

// ---- the folder ----

void ScriptsExplorer::complain(std::set<std::string>& present, std::string const& mistake)
{
  if (!m_mistakes.contains(mistake))
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "A script is not used: " << mistake);
  present.insert(mistake);
}

std::string ScriptsExplorer::ownerOf(Scripts::ScriptFile const& file,
                                     std::vector<Scripts::ScriptFile> const& all) const
{
  for (Scripts::ScriptFile const& other : all)
    if (other.path != file.path && equalIgnoringCase(other.name, file.name))
      return other.path;
  return m_owner(file.name);
}

void ScriptsExplorer::look(std::string const& subject)
{
  std::vector<std::string> mistakes;
  auto const found = Scripts::findScripts(m_folder, mistakes);
  std::set<std::string> present;
  for (std::string const& mistake : mistakes)
    complain(present, mistake);
  std::map<std::string, Script> scripts;
  std::size_t added = 0;
  auto const now = m_clock();
  for (Scripts::ScriptFile const& file : found)
  {
    Script script;
    auto const known = m_scripts.find(file.path);
    if (known != m_scripts.end())
      script = known->second;
    bool const isNew = known == m_scripts.end() || !(script.file == file);
    if (isNew)
    {
      // One that runs goes on; what it finds is that of another file.
      bool const busy = script.busy;
      script = Script();
      script.busy = busy;
      script.file = file;
      script.due = now + std::chrono::seconds(added++ / AT_ONCE);
    }
    // Of one that was good and has not changed the sidecar need not be read again.
    std::vector<std::string> wrong;
    if (std::string mistake; isNew || !script.examined)
    {
      script.sidecar = {};
      wrong = Scripts::examineScript(file, script.sidecar);
      script.examined = wrong.empty();
    }
    else if (!Scripts::mayRun(file, mistake))
      wrong.push_back(mistake);
    if (std::string const owner = ownerOf(file, found); wrong.empty() && !owner.empty())
      wrong.push_back(file.path + " has the authority " + file.name + " like " + owner);
    for (std::string const& mistake : wrong)
      complain(present, mistake);
    script.usable = wrong.empty();
    if (!script.record)
      script.record = getExplorerRuns().declare({ExplorerRecord::SCRIPT, file.name, AT_TQUCLIENT,
                                                 subject, script.sidecar.priority, file.path});
    if (!script.usable)
      script.record->amend(script.record->now().lastRun, "not used: " + wrong.front(), false);
    scripts.emplace(file.path, std::move(script));
  }
  m_scripts = std::move(scripts);
  m_mistakes = std::move(present);
  std::lock_guard const guard(m_mutex);
  m_names.clear();
  for (auto const& [path, script] : m_scripts)
    m_names.insert(inLowerCase(script.file.name));
}

// ---- the runs ----

void ScriptsExplorer::begin(std::string const& subject)
{
  bool allDue = false;
  std::set<std::string> askedFor;
  {
    std::lock_guard const guard(m_mutex);
    std::swap(allDue, m_allDue);
    std::swap(askedFor, m_due);
  }
  auto const now = m_clock();
  for (auto& [path, script] : m_scripts)
  {
    // At the start all are due, too, yet not all at the same moment.
    if ((allDue && script.ran) || askedFor.contains(inLowerCase(script.file.name)))
      script.due = std::min(script.due, now);
    if (!script.usable || script.busy || script.due > now ||
        !getExplorerRuns().mayRun(*script.record))
      continue;
    OZF_LOG(getOzfLogger(), 6, SOURCE, OPERATION, "The script " << path << " is due");
    m_workers.submit({script.file, script.sidecar, subject, script.record});
    plan(script, subject);
  }
}

// The second run comes after a share of the interval, so that scripts which began
// together do not go on together.
void ScriptsExplorer::plan(Script& script, std::string const& subject)
{
  std::chrono::milliseconds const interval = std::chrono::seconds(script.sidecar.interval);
  auto const wait =
      script.ran ? interval : interval / 2 + shareOf(interval / 2, subject, script.file.name);
  script.due = std::max(script.due, m_clock() - interval) + wait;
  script.busy = true;
  script.ran = true;
}

void ScriptsExplorer::takeResults()
{
  for (ScriptResult& result : m_workers.take())
  {
    auto const& outcome = result.outcome;
    std::string const& path = result.job.file.path;
    auto const script = m_scripts.find(path);
    if (script != m_scripts.end())
      script->second.busy = false;
    if (!outcome.failure.empty())
    {
      OZF_LOG(
          getOzfLogger(), outcome.stopped ? 4 : 1, SOURCE, OPERATION,
          "The script " << path << " failed, and what it found before stays: " << outcome.failure
                        << (outcome.errors.empty() ? "" : "; standard error: ") << outcome.errors);
      continue;
    }
    if (script == m_scripts.end() || !(script->second.file == result.job.file))
      continue; // it is not there any more, or another
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
            "The script " << path << " found " << result.items << " items in "
                          << outcome.took.count() << " ms");
    std::erase_if(m_results,
                  [&path](ScriptResult const& other) { return other.job.file.path == path; });
    m_results.push_back(std::move(result));
  }
}

// ---- the store ----

DiscoveryStatus ScriptsExplorer::store(ScriptResult const& result, Subject const& subject,
                                       DiscoveryFactory const& factory) const
{
  auto const& sidecar = result.job.sidecar;
  CollectionAttributes const attributes =
      withExpiry(CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, result.began,
                                      OzfObjTime(sidecar.interval), sidecar.priority),
                 static_cast<PollingInterval>(sidecar.expiry.value_or(0)));
  Authority const authority(result.job.file.name, AT_TQUCLIENT);
  // Whoever finds the facts finds of what kind they are.
  auto const filter = Explorers::store(factory, DQ_FILTER_DATA, subject, filterAuthority(authority),
                                       attributes, result.filterDocument, OPERATION);
  auto const data = Explorers::store(factory, DQ_DISCOVERY_DATA, subject, authority, attributes,
                                     result.document, OPERATION);
  return data != DS_SUCCESS ? data : filter;
}

DiscoveryStatus ScriptsExplorer::storeResults(Subject const& subject,
                                              DiscoveryFactory const& factory)
{
  auto const begun = m_clock();
  if (begun < m_storeAgain)
    return DS_COM_ERROR;
  DiscoveryStatus status = DS_SUCCESS;
  std::size_t done = 0;
  while (done < m_results.size() && m_clock() - begun < MOST_STORING)
  {
    ScriptResult const& found = m_results[done];
    auto const each = store(found, subject, factory);
    found.job.record->amend(found.began, describe(each), isInOrder(each));
    status = each == DS_SUCCESS ? status : each;
    if (each != DS_SUCCESS && each != DS_DATA_EXISTS)
    {
      // The master may be away: what is left is as good in a minute.
      m_storeAgain = begun + STORE_AGAIN;
      break;
    }
    ++done;
  }
  m_results.erase(m_results.begin(), m_results.begin() + static_cast<std::ptrdiff_t>(done));
  return status;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
