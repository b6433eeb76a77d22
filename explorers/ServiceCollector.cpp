#include "explorers/ServiceCollector.h"

#include "discovery/ExplorerRemotePull.h"
#include "discovery/OpenWriters.h"
#include "ozf/base/AsciiCase.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"
#include "ozf/tls/CurrentTls.h"

#include <algorithm>
#include <filesystem>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char METADATA_SUFFIX[] = ".xml";

std::optional<std::uint64_t> countStored(std::string const& directory)
{
  std::error_code error;
  std::uint64_t count = 0;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error))
    if (entry->path().extension() == METADATA_SUFFIX)
      ++count;
  return error ? std::nullopt : std::optional(count);
}

ExplorerState stateOf(ExplorerWrapper const& entry, ExplorerRecord::Kind kind)
{
  ExplorerState state{entry.getAuthority()->getName().str(),
                      entry.getAuthority()->getType(),
                      kind,
                      entry.getPriority(),
                      entry.lastRun(),
                      {},
                      {}};
  if (auto const& record = entry.getRecord())
  {
    state.origin = record->description().origin;
    state.runs = record->now();
  }
  return state;
}

ExplorerState stateOf(ExplorerRecord const& script)
{
  auto const& what = script.description();
  ExplorerRecord::Now const now = script.now();
  return {what.authority,
          what.type,
          what.kind,
          what.priority,
          {now.lastRun, now.well ? DS_SUCCESS : DS_LOGIC_ERROR},
          what.origin,
          now};
}

std::optional<ServiceLoad> loadOf(DiscoveryRepository const& repository)
{
  Orb* const orb = repository.findOrb();
  if (orb == nullptr)
    return std::nullopt;
  return ServiceLoad{connectionCounts(), orb->getEvictor().size(), Remote::getOpenWriters().size(),
                     getWriteCounts().seen()};
}

} // namespace

ServiceState collectService(DiscoveryRepository const& repository, std::string const& directory,
                            OzfObjTime const& start)
{
  ServiceState state;
  state.master = repository.isGenericDSOnMaster();
  state.version = TQ_VERSION;
  state.start = start;
  state.stored = countStored(directory);
  if (auto const tls = currentTls())
  {
    state.certificateEnd = OzfObjTime(tls->firstToEnd().end());
    state.endingAuthority = tls->authorityToEnd();
  }
  for (std::string const& key : keysThatWait())
    state.awaitsRestart += (state.awaitsRestart.empty() ? "" : ", ") + key;
  state.crashedBy = getExplorerCrashes().culprits();
  state.limits = getLimits().met();
  state.load = loadOf(repository);
  auto const push = repository.getPushExplorers();
  for (auto const& entry : *push)
    state.explorers.push_back(stateOf(*entry, ExplorerRecord::PUSH));
  auto const pull = repository.getPullExplorers();
  for (auto const& entry : *pull)
    if (dynamic_cast<RemoteExplorerPull const*>(entry->getExplorer()) != nullptr)
      ++state.announced;
    else
      state.explorers.push_back(stateOf(*entry, ExplorerRecord::PULL));
  // One registration stands for all scripts. Those that are not used, as another has the
  // authority, are no explorers.
  for (auto const& record : getExplorerRuns().all())
    if (auto const& what = record->description();
        what.kind == ExplorerRecord::SCRIPT &&
        std::none_of(state.explorers.begin(), state.explorers.end(),
                     [&what](auto const& other) {
                       return other.type == what.type &&
                              equalIgnoringCase(other.authority, what.authority);
                     }))
      state.explorers.push_back(stateOf(*record));
  return state;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
