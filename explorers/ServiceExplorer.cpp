#include "explorers/ServiceExplorer.h"

#include "discovery/ExplorerPayload.h"
#include "ozf/base/MetadataConverter.h"

#include <array>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

using Type = OzfQuery::Type;
using Value = std::optional<std::string>;

Value toText(OzfObjTime const& time)
{
  std::string text;
  if (time.isZero() || !MetadataConverter::convert(time, text, false))
    return std::nullopt;
  return text;
}

char const* toText(AuthorityType type)
{
  switch (type)
  {
  case AT_TQUSERVER:
    return "server";
  case AT_TQUCLIENT:
    return "client";
  case AT_EXTSRC:
    return "external";
  case AT_REMOTEPULL:
    return "remotepull";
  default:
    return "any";
  }
}

constexpr char KINDS[] = "service, push, pull, script, limit or clone";

// Of what is told only where something is served.
template <std::uint64_t (*NUMBER)(ServiceLoad const&)>
Value ofLoad(ServiceState const& state)
{
  return state.load ? Value(std::to_string(NUMBER(*state.load))) : std::nullopt;
}

template <std::size_t BOUND>
std::uint64_t writesWithin(ServiceLoad const& load)
{
  return load.writes.within[BOUND];
}

constexpr char WITHIN[] = "Of those that were timed, how many took no longer than that";

constexpr std::array<Fact<ServiceState>, 25> SERVICE_FACTS = {{
    {"Kind", Type::TEXT, KINDS, [](ServiceState const&) -> Value { return SERVICE; }},
    {"Role", Type::TEXT, "master or client",
     [](ServiceState const& state) -> Value { return state.master ? "master" : "client"; }},
    {"Version", Type::TEXT, "The version of the service",
     [](ServiceState const& state) -> Value { return known(state.version); }},
    {"StartTime", Type::TIME, "When the service was started",
     [](ServiceState const& state) -> Value { return toText(state.start); }},
    {"StoredDiscoveries", Type::NUMBER, "The discoveries in the database of the host",
     [](ServiceState const& state) -> Value { return known(state.stored); }},
    {"AnnouncedExplorers", Type::NUMBER, "The explorers that other hosts announced",
     [](ServiceState const& state) -> Value { return std::to_string(state.announced); }},
    {"CertificateEnd", Type::TIME,
     "When the certificate of the host ends, or one of an authority that it rests on",
     [](ServiceState const& state) -> Value { return toText(state.certificateEnd); }},
    {"EndingAuthority", Type::TEXT, "The authority whose certificate ends before that of the host",
     [](ServiceState const& state) -> Value { return known(state.endingAuthority); }},
    {"AwaitsRestart", Type::TEXT, "Keys of the configuration whose changes wait for a restart",
     [](ServiceState const& state) -> Value { return known(state.awaitsRestart); }},
    {"CrashedBy", Type::TEXT, "The explorers that ended the service before its last start",
     [](ServiceState const& state) -> Value { return known(state.crashedBy); }},
    {"Connections", Type::NUMBER, "The connections that peers have open",
     ofLoad<[](ServiceLoad const& load) { return load.connections.open; }>},
    {"ConnectionsTaken", Type::NUMBER, "The connections that were let in since the start",
     ofLoad<[](ServiceLoad const& load) { return load.connections.taken; }>},
    {"ConnectionsRefused", Type::NUMBER, "The connections that were not let in since the start",
     ofLoad<[](ServiceLoad const& load) { return load.connections.refused; }>},
    {"OpenIterators", Type::NUMBER, "The lists that callers have open",
     ofLoad<[](ServiceLoad const& load) { return load.iterators; }>},
    {"OpenWriters", Type::NUMBER, "The discoveries that callers are writing",
     ofLoad<[](ServiceLoad const& load) { return load.writers; }>},
    {"WritesStored", Type::NUMBER, "The writes into the database that went well since the start",
     ofLoad<[](ServiceLoad const& load) { return load.writes.stored; }>},
    {"WritesOutranked", Type::NUMBER, "Those that met data of higher priority",
     ofLoad<[](ServiceLoad const& load) { return load.writes.outranked; }>},
    {"WritesFailed", Type::NUMBER, "Those that failed",
     ofLoad<[](ServiceLoad const& load) { return load.writes.failed; }>},
    {"WritesTimed", Type::NUMBER, "Those that got as far as to be persisted",
     ofLoad<[](ServiceLoad const& load) { return load.writes.timed; }>},
    {"WriteTime", Type::NUMBER, "How long these took together", ofLoad<[](ServiceLoad const& load) {
       return static_cast<std::uint64_t>(load.writes.time.count());
     }>,
     "microseconds"},
    {"WritesWithin1ms", Type::NUMBER, WITHIN, ofLoad<writesWithin<0>>},
    {"WritesWithin10ms", Type::NUMBER, WITHIN, ofLoad<writesWithin<1>>},
    {"WritesWithin100ms", Type::NUMBER, WITHIN, ofLoad<writesWithin<2>>},
    {"WritesWithin1s", Type::NUMBER, WITHIN, ofLoad<writesWithin<3>>},
    {"WritesWithin10s", Type::NUMBER, WITHIN, ofLoad<writesWithin<4>>},
}};

// They have the bounds in their names.
static_assert(WriteCounts::BOUNDS == std::array<WriteCounts::Duration, 5>{
                                         std::chrono::milliseconds(1),
                                         std::chrono::milliseconds(10),
                                         std::chrono::milliseconds(100), std::chrono::seconds(1),
                                         std::chrono::seconds(10)});

Value resultOf(ExplorerState const& state)
{
  if (state.runs && !state.runs->result.empty())
    return state.runs->result;
  return state.lastRun.time.isZero() ? "not run" : describe(state.lastRun.status);
}

// A count of its runs; none where they are not told of.
template <std::uint64_t ExplorerRecord::Now::*COUNT>
Value countOf(ExplorerState const& state)
{
  return state.runs ? Value(std::to_string((*state.runs).*COUNT)) : std::nullopt;
}

constexpr std::array<Fact<ExplorerState>, 12> EXPLORER_FACTS = {{
    {"Kind", Type::TEXT, KINDS,
     [](ExplorerState const& state) -> Value { return nameOf(state.kind); }},
    {"Type", Type::TEXT, "The authority's type: server, client or external",
     [](ExplorerState const& state) -> Value { return toText(state.type); }},
    {"Priority", Type::NUMBER, "The priority of the registration",
     [](ExplorerState const& state) -> Value { return std::to_string(state.priority); }},
    {"LastRun", Type::TIME, "When it ran last, or was last asked",
     [](ExplorerState const& state) -> Value { return toText(state.lastRun.time); }},
    {"LastResult", Type::TEXT,
     "What came of that: success, not run, late, crashed, left out, or what failed", resultOf},
    {"Origin", Type::TEXT, "The library or the file that it comes from",
     [](ExplorerState const& state) -> Value { return known(state.origin); }},
    {"LastSuccess", Type::TIME, "When the last run began that was in order",
     [](ExplorerState const& state) -> Value
     { return state.runs ? toText(state.runs->lastSuccess) : std::nullopt; }},
    {"LastDuration", Type::NUMBER, "How long its last run took",
     [](ExplorerState const& state) -> Value
     {
       return state.runs && state.runs->took ? Value(std::to_string(state.runs->took->count()))
                                             : std::nullopt;
     },
     "microseconds"},
    {"LastMemory", Type::NUMBER, "By how much the service grew meanwhile",
     [](ExplorerState const& state) -> Value
     {
       return state.runs && state.runs->memory ? Value(std::to_string(*state.runs->memory))
                                               : std::nullopt;
     },
     "bytes"},
    {"Runs", Type::NUMBER, "Its runs since the service was started",
     countOf<&ExplorerRecord::Now::runs>},
    {"Failures", Type::NUMBER, "Those of them that were not in order",
     countOf<&ExplorerRecord::Now::failures>},
    {"LateRuns", Type::NUMBER, "Those of them that took longer than they may",
     countOf<&ExplorerRecord::Now::lateRuns>},
}};

constexpr std::array<Fact<MetLimit>, 5> LIMIT_FACTS = {{
    {"Kind", Type::TEXT, KINDS, [](MetLimit const&) -> Value { return "limit"; }},
    {"Value", Type::NUMBER, "What the limit is set to",
     [](MetLimit const& limit) -> Value { return std::to_string(limit.value); }},
    {"TimesMet", Type::NUMBER, "How often it was met since the start of the service",
     [](MetLimit const& limit) -> Value { return std::to_string(limit.times); }},
    {"LastPeer", Type::TEXT, "The address of the peer that met it last",
     [](MetLimit const& limit) -> Value { return known(limit.lastPeer); }},
    {"LastMet", Type::TIME, "When that was",
     [](MetLimit const& limit) -> Value { return toText(limit.lastTime); }},
}};

constexpr std::array<Fact<Clone>, 3> CLONE_FACTS = {{
    {"Kind", Type::TEXT, KINDS, [](Clone const&) -> Value { return "clone"; }},
    {"Machines", Type::TEXT, "The identifiers of the machines that report under the name",
     [](Clone const& clone) -> Value { return known(clone.machines); }},
    {"Since", Type::TIME, "When that was noticed",
     [](Clone const& clone) -> Value { return toText(clone.since); }},
}};

std::string filterData()
{
  AutoDereference<OzfQuery> const query = describeFacts(serviceFacts());
  query->merge(*describeFacts(explorerFacts()));
  query->merge(*describeFacts(limitFacts()));
  query->merge(*describeFacts(cloneFacts()));
  return filterDocument(*query);
}

} // namespace

Facts<ServiceState> serviceFacts() { return SERVICE_FACTS; }
Facts<ExplorerState> explorerFacts() { return EXPLORER_FACTS; }
Facts<MetLimit> limitFacts() { return LIMIT_FACTS; }
Facts<Clone> cloneFacts() { return CLONE_FACTS; }

ServiceExplorer::ServiceExplorer(Collect collect)
    : TimedExplorer(INTERVAL), m_collect(std::move(collect))
{
}

DiscoveryStatus ServiceExplorer::run(Authority const& authority, Subject const& subject,
                                     CollectionAttributes const& attributes,
                                     DiscoveryFactory const& factory)
{
  ServiceState const state = m_collect();
  DiscoveredItems items(*this);
  items.addItem(subject.getName().str(), serviceFacts(), state);
  for (ExplorerState const& explorer : state.explorers)
    if (explorer.authority != SERVICE)
      items.addItem(explorer.authority, explorerFacts(), explorer);
  for (MetLimit const& limit : state.limits)
    items.addItem(limit.key, limitFacts(), limit);
  for (Clone const& clone : state.clones)
    items.addItem(clone.subject, cloneFacts(), clone);
  return storeWithFilters(factory, subject, authority, attributes, items.finish(), filterData(),
                          "ServiceExplorer::explore");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
