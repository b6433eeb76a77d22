#include "web/KeptList.h"

#include "tools/Hosts.h"
#include "tools/Metrics.h"
#include "tools/Output.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace Web
{

using namespace tqdiscoctl;
using Quillon::Tessarine::Ozf::OzfObjTime;

namespace
{

auto keyOf(Record const& record)
{
  return std::tuple<std::string const&, std::string const&, int, bool>(
      record.subject, record.authority, static_cast<int>(record.type), record.onDemand());
}

// A master tells in whole seconds how long a record still holds, so that the end is now a
// second earlier and now later.
bool isAboutSame(OzfObjTime const& a, OzfObjTime const& b)
{
  constexpr std::int64_t SLACK = 2;
  return a.seconds() <= b.seconds() + SLACK && b.seconds() <= a.seconds() + SLACK;
}

void summarize(MasterList& list)
{
  HostSilence silence;
  for (Record const& record : *list.records)
    silence.add(record);
  list.hosts = 0;
  list.silentHosts = 0;
  list.oldest = {};
  auto const end = list.records->end();
  for (auto at = list.records->begin(); at != end;)
  {
    auto const next =
        std::find_if(at, end, [at](Record const& each) { return each.subject != at->subject; });
    ++list.hosts;
    list.silentHosts += silence.contains(at->subject) ? 1 : 0;
    OzfObjTime latest;
    for (; at != next; ++at)
      latest = std::max(latest, at->discovered);
    if (!latest.isZero())
      list.oldest = list.oldest.isZero() ? latest : std::min(list.oldest, latest);
  }
}

// Half a list would tell of hosts as silent, or not at all.
std::shared_ptr<FleetFigures const> fleetFiguresOf(MasterList const& list)
{
  Fleet fleet(list.listed);
  for (Record const& record : *list.records)
    fleet.add(record);
  if (!list.complete || fleet.full())
    return nullptr;
  return std::make_shared<FleetFigures const>(tqdiscoctl::figuresOf(fleet, fleet.silent()));
}

} // namespace

bool isBefore(Record const& a, Record const& b) { return keyOf(a) < keyOf(b); }

std::span<Record const> recordsOf(MasterList const& list, std::string const& subject)
{
  return {std::ranges::lower_bound(*list.records, subject, {}, &Record::subject),
          std::ranges::upper_bound(*list.records, subject, {}, &Record::subject)};
}

nlohmann::json toJson(MasterList const& list)
{
  constexpr char const* STATES[] = {"starting", "up", "away"};
  bool const isListed = !list.listed.isZero();
  return {{"master", list.master},
          {"state", STATES[list.state]},
          {"since", timeOrNull(list.since)},
          {"reason", list.reason.empty() ? nlohmann::json() : nlohmann::json(list.reason)},
          {"complete", list.complete},
          {"listTime", timeOrNull(list.listed)},
          {"listMilliseconds", isListed ? std::lround(list.listSeconds * 1000) : 0},
          {"listInterval", list.interval},
          {"hosts", list.hosts},
          {"silentHosts", list.silentHosts},
          {"discoveries", list.records->size()},
          {"oldestTime", timeOrNull(list.oldest)}};
}

bool KeptList::Look::anyListed() const
{
  return std::any_of(masters.begin(), masters.end(),
                     [](MasterList const& each) { return !each.listed.isZero(); });
}

KeptList::KeptList(std::vector<std::string> const& masters, EventLog& events) : m_events(events)
{
  auto look = std::make_shared<Look>();
  look->generation = 1;
  for (std::string const& master : masters)
  {
    MasterList list;
    list.master = master;
    list.since = OzfObjTime::now();
    look->masters.push_back(std::move(list));
  }
  m_look = std::move(look);
}

std::shared_ptr<KeptList::Look const> KeptList::look() const
{
  std::lock_guard const guard(m_mutex);
  return m_look;
}

bool KeptList::replace(std::size_t master, MasterList list, bool newRecords)
{
  auto next = std::make_shared<Look>(*look());
  bool const newState = next->masters[master].state != list.state;
  next->masters[master] = std::move(list);
  next->generation += newRecords ? 1 : 0;
  {
    std::lock_guard const guard(m_mutex);
    m_look = next;
  }
  return newState;
}

void KeptList::tellState(std::size_t master)
{
  m_events.add("state", jsonText(toJson(look()->masters[master]), -1));
}

// Whoever listens learns of a change when it can be asked for already.
void KeptList::update(std::size_t master, Records records, std::string const& ownName,
                      bool complete, double seconds)
{
  std::lock_guard const updating(m_updating);
  MasterList list = look()->masters[master];
  auto const before = list.records;
  std::sort(records.begin(), records.end(), isBefore);
  if (!complete)
  {
    Records all;
    std::set_union(std::make_move_iterator(records.begin()), std::make_move_iterator(records.end()),
                   before->begin(), before->end(), std::back_inserter(all), isBefore);
    records = std::move(all);
  }
  bool const isFirst = list.listed.isZero();
  bool const isNew =
      isFirst || !std::equal(before->begin(), before->end(), records.begin(), records.end(),
                             [](Record const& a, Record const& b)
                             {
                               return keyOf(a) == keyOf(b) && a.discovered == b.discovered &&
                                      isAboutSame(a.expires, b.expires);
                             });
  if (isNew)
  {
    records.shrink_to_fit();
    list.records = std::make_shared<Records const>(std::move(records));
    summarize(list);
  }
  auto const after = list.records;
  auto const now = OzfObjTime::now();
  if (list.state != MasterList::UP)
    list.since = now;
  list.state = MasterList::UP;
  list.reason.clear();
  list.complete = complete;
  list.listed = now;
  list.listSeconds = seconds;
  list.ownName = ownName;
  list.figures = fleetFiguresOf(list);
  bool const newState = replace(master, std::move(list), isNew);
  if (isFirst || (isNew && !tellChanges(*before, *after)))
    m_events.reset();
  // Behind a reset, which takes away what stands before it.
  if (newState)
    tellState(master);
}

// False when they are more than are remembered, and were not told.
bool KeptList::tellChanges(Records const& before, Records const& after)
{
  struct Change
  {
    char const* event;
    Record const* record;
  };
  std::vector<Change> changes;
  auto old = before.begin();
  for (auto at = after.begin(); at != after.end() || old != before.end();)
  {
    if (changes.size() > EventLog::MOST_EVENTS)
      return false;
    if (at == after.end() || (old != before.end() && isBefore(*old, *at)))
      changes.push_back({"gone", &*old++});
    else if (old == before.end() || isBefore(*at, *old))
      changes.push_back({"added", &*at++});
    else
    {
      if (at->discovered != old->discovered)
        changes.push_back({"changed", &*at});
      ++at;
      ++old;
    }
  }
  for (Change const& change : changes)
    m_events.add(change.event, jsonText(tqdiscoctl::toJson(*change.record), -1));
  return true;
}

void KeptList::fail(std::size_t master, std::string const& reason)
{
  std::lock_guard const updating(m_updating);
  MasterList list = look()->masters[master];
  if (list.state != MasterList::AWAY)
    list.since = OzfObjTime::now();
  list.state = MasterList::AWAY;
  list.reason = reason;
  if (replace(master, std::move(list), false))
    tellState(master);
}

void KeptList::setService(std::size_t master,
                          std::shared_ptr<tqdiscoctl::ServiceFigures const> const& service)
{
  std::lock_guard const updating(m_updating);
  MasterList list = look()->masters[master];
  list.service = service;
  replace(master, std::move(list), false);
}

void KeptList::setInterval(std::size_t master, double seconds)
{
  std::lock_guard const updating(m_updating);
  MasterList list = look()->masters[master];
  list.interval = seconds;
  replace(master, std::move(list), false);
}

} // namespace Web
