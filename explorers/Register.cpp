// What this library registers, and why its registrations do not get into each
// other's way.
//
// The registry has one place for each explorer identity, and two registrations
// have different identities only when its order tells them apart. All of ours
// have one subject, this host, so the authorities alone decide: a registration
// comes before another when neither its name nor its type is greater and the
// two are not the same. Where the name is smaller but the type larger, neither
// comes first, and the two compete for one place. Ours must therefore form a
// chain in which neither names nor types ever fall:
//
//   filesystem, AT_TQUCLIENT      push
//   host,       AT_TQUCLIENT      push
//   listener,   AT_TQUCLIENT      push
//   network,    AT_TQUCLIENT      push
//   scripts,    AT_TQUCLIENT      push, for every script
//   service,    AT_TQUCLIENT      push
//   software,   AT_TQUCLIENT      push
//   volume,     AT_TQUCLIENT      pull
//   volume,     AT_EXTSRC         push, the filter data of the line above
//
// Every two of them are ordered, whichever is registered first and whichever
// set it goes to (a registration is compared with both sets). Whoever adds an
// explorer here keeps to the chain: with AT_TQUCLIENT any name up to "volume"
// fits, while another filter data explorer under AT_EXTSRC fits only with a
// name after all others, since it would compete with every registration of a
// greater name. An explorer whose data is pushed does better to store its
// filter data itself, as "filesystem" does.
//
// The priority leaves room on both sides: a plug-in that knows better takes a
// place with a higher one, and one that only steps in when nothing else is
// there uses a lower one.

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/DiscDB.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/FilterDataName.h"
#include "discovery/RefreshRequests.h"
#include "explorers/FilesystemExplorer.h"
#include "explorers/HostExplorer.h"
#include "explorers/ListenerExplorer.h"
#include "explorers/NetworkExplorer.h"
#include "explorers/ScriptsExplorer.h"
#include "explorers/ServiceExplorer.h"
#include "explorers/SoftwareExplorer.h"
#include "explorers/VolumeExplorer.h"
#include "explorers/VolumeFilterExplorer.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ProductRoot.h"

#include <memory>

namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

constexpr char SOURCE[] = "Register";
constexpr unsigned PRIORITY = 10;

void registerPush(DiscoveryRepository& repository, std::string const& host,
                  AutoDereference<ExplorerPush> const& explorer, AuthorityType type)
{
  repository.registerExplorer(new Subject(host), explorer.get(), PRIORITY,
                              new Authority(explorer->getExplorerName(), type));
}

void registerPull(DiscoveryRepository& repository, std::string const& host,
                  AutoDereference<ExplorerPull> const& explorer, AuthorityType type)
{
  repository.registerExplorer(new Subject(host), explorer.get(), PRIORITY,
                              new Authority(explorer->getExplorerName(), type), false);
}

// Empty, with a log line, when the host has no name.
std::string localHost(char const* operation)
{
  OzfHostname host;
  if (!host.setLocal())
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
            "This host has no name, so nothing of the default explorer library is registered");
  return host.exportNarrow();
}

// What the configuration says of an explorer of this library.
bool isWanted(char const* name) { return getConfiguration()->isOn(configKey("EXPLORER."), name); }

// Serial numbers and the like.
Explorers::Secrets secretsOf(char const* name)
{
  return getConfiguration()->isOn(configKey("EXPLORER_SECRETS."), name)
             ? Explorers::Secrets::Told
             : Explorers::Secrets::LeftOut;
}

// Where the configuration wants it. Takes the explorer over.
void registerTimed(DiscoveryRepository& repository, std::string const& host,
                   Explorers::TimedExplorer* timed, AuthorityType type)
{
  AutoDereference<ExplorerPush> const explorer(timed);
  char const* const name = explorer->getExplorerName();
  if (!isWanted(name))
    return;
  registerPush(repository, host, explorer, type);
}

// Which explorer of this host has the authority, or stores its filter data there.
std::string ownerOf(DiscoveryRepository const& repository, std::string const& authority)
{
  for (auto const& set : {repository.getPushExplorers(), repository.getPullExplorers()})
    for (auto const& entry : *set)
    {
      std::string const name = entry->getAuthority()->getName().str();
      if (dynamic_cast<RemoteExplorerPull const*>(entry->getExplorer()) == nullptr &&
          (equalIgnoringCase(authority, name) ||
           equalIgnoringCase(authority, name + FILTER_DATA_SUFFIX)))
        return "the explorer " + name;
    }
  if (equalIgnoringCase(authority.substr(0, authority.find('.')), REFRESH_AUTHORITY))
    return "requests that explorers run";
  return {};
}

void registerScripts(DiscoveryRepository& repository, std::string const& host)
{
  if (!isWanted(Explorers::SCRIPTS))
    return;
  AutoDereference<ExplorerPush> const scripts(new Explorers::ScriptsExplorer(
      getScriptDirectory(),
      [&repository](std::string const& authority) { return ownerOf(repository, authority); }));
  registerPush(repository, host, scripts, AT_TQUCLIENT);
}

void registerFilterData(DiscoveryRepository& repository, std::string const& host)
{
  registerTimed(repository, host, new Explorers::VolumeFilterExplorer, AT_EXTSRC);
}

} // namespace

extern "C"
{

  TQ_EXPORT void RegisterExplorers(DiscoveryRepository* repository)
  {
    std::string const host = localHost("RegisterExplorers");
    if (repository == nullptr || host.empty())
      return;
    registerTimed(*repository, host, new Explorers::FilesystemExplorer, AT_TQUCLIENT);
    registerTimed(*repository, host, new Explorers::HostExplorer("/", secretsOf(Explorers::HOST)),
                  AT_TQUCLIENT);
    registerTimed(*repository, host, new Explorers::ListenerExplorer, AT_TQUCLIENT);
    registerTimed(*repository, host, new Explorers::NetworkExplorer, AT_TQUCLIENT);
    registerTimed(*repository, host, new Explorers::SoftwareExplorer, AT_TQUCLIENT);
    registerTimed(*repository, host,
                  new Explorers::ServiceExplorer(
                      [repository, start = OzfObjTime::now(),
                       watch = std::make_shared<Explorers::MachineWatch>()]
                      {
                        auto state = Explorers::collectService(
                            *repository, getDiscoveryDBDatabase()->getDirectory(), start);
                        if (state.master)
                          state.clones =
                              watch->look(Explorers::readMachines(*repository), OzfObjTime::now());
                        return state;
                      }),
                  AT_TQUCLIENT);
    registerScripts(*repository, host);
    if (isWanted(Explorers::VOLUME))
    {
      AutoDereference<ExplorerPull> const volume(new Explorers::VolumeExplorer);
      registerPull(*repository, host, volume, AT_TQUCLIENT);
    }

    // The service loads explorers and parsers only, and filter data must be
    // stored on every host that has it.
    registerFilterData(*repository, host);
  }

  TQ_EXPORT void RegisterExplorerParsers(DiscoveryRepository* repository)
  {
    if (repository == nullptr)
      return;
    AutoDereference<ExplorerDataParser> const parser(new DefaultExplorerDataParser);
    repository->registerExplorerParser(parser->getExplorerParserName(), parser.get());
  }

  // For a process that loads filter data providers but no explorers; after
  // RegisterExplorers it changes nothing, since the first registration of equal
  // priority stays.
  TQ_EXPORT void RegisterExplorerFilterDataProvider(DiscoveryRepository* repository)
  {
    std::string const host = localHost("RegisterExplorerFilterDataProvider");
    if (repository != nullptr && !host.empty())
      registerFilterData(*repository, host);
  }

} // extern "C"
