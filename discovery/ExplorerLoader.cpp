#include "discovery/ExplorerLoader.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerCrashes.h"
#include "discovery/RegistrationWatch.h"
#include "ozf/plugin/CurrentException.h"
#include "ozf/plugin/RuntimeLoader.h"

namespace
{

constexpr char EXPLORERS_ENTRY[] = "RegisterExplorers";
constexpr char PARSERS_ENTRY[] = "RegisterExplorerParsers";
constexpr char FILTER_DATA_ENTRY[] = "RegisterExplorerFilterDataProvider";

} // namespace

RegisterExplorerInterface::RegisterExplorerInterface()
{
  m_definitions.push_back({EXPLORERS_ENTRY, true, nullptr});
}

RegisterExplorerParserInterface::RegisterExplorerParserInterface()
{
  m_definitions.push_back({PARSERS_ENTRY, true, nullptr});
}

RegisterFilterDataInterface::RegisterFilterDataInterface()
{
  m_definitions.push_back({FILTER_DATA_ENTRY, true, nullptr});
}

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "ExplorerLoader";
constexpr char DEFAULT_LIBRARY[] = "libtqexplorer";

// RTLD_LAZY | RTLD_GLOBAL
constexpr int LOAD_MODE = 257;

// Initialised before any code runs, since it is set before main.
using TargetSource = ExplorerLoader::Target (*)();
constinit TargetSource loaderTarget = nullptr;

RegistrationEntry entryOf(SymbolResolver const& resolver)
{
  return reinterpret_cast<RegistrationEntry>(resolver.definitions().front().address);
}

// As what a library counts that crashes while it registers what it has.
CrashSuspect suspectOf(std::string const& library)
{
  return {"load", library.substr(library.rfind('/') + 1), "", library};
}

// Filter-data providers of other components may still look at theirs, so these
// outlive the loader.
std::list<std::unique_ptr<SymbolResolver>>& keptResolvers()
{
  static auto* const kept = new std::list<std::unique_ptr<SymbolResolver>>;
  return *kept;
}

} // namespace

bool ExplorerLoader::setTarget(Target (*target)())
{
  loaderTarget = target;
  return true;
}

ExplorerLoader* ExplorerLoader::instance(EngineContext const& context)
{
  return new ExplorerLoader(&context);
}

ExplorerLoader::ExplorerLoader(EngineContext const* context) : m_context(context) {}

ExplorerLoader::~ExplorerLoader()
{
  auto& kept = keptResolvers();
  kept.splice(kept.end(), m_filterDataInterfaces);
}

void ExplorerLoader::loadExplorers()
{
  constexpr char OPERATION[] = "ExplorerLoader::loadExplorers";
  LockableGuard const repositoryGuard(loaderTarget().lock);
  OZF_ASSERT(repositoryGuard.locked(), "repositoryGuard.locked()", SOURCE, OPERATION);
  LockableGuard const lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE, OPERATION);
  if (m_explorersLoaded)
    return;
  loadDefaultLibrary(m_explorerInterface, m_explorerInterface, OPERATION,
                     "Found default explorer library, will register explorers",
                     "Registration of uri schemes in default scheme library completed");
  iteratePlugins(EXPLORERS);
  m_explorersLoaded = true;
}

void ExplorerLoader::loadExplorerParsers(std::list<std::string> const* allowedPlugins)
{
  constexpr char OPERATION[] = "ExplorerLoader::loadExplorerParsers";
  LockableGuard const repositoryGuard(loaderTarget().lock);
  OZF_ASSERT(repositoryGuard.locked(), "repositoryGuard.locked()", SOURCE, OPERATION);
  LockableGuard const lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE, OPERATION);
  if (allowedPlugins != nullptr && !allowedPlugins->empty())
    getEngineSingleton<PluginDirector>(*m_context)->setAllowedPlugins(allowedPlugins);
  if (m_parsersLoaded)
    return;
  loadDefaultLibrary(m_parserInterface, m_parserInterface, OPERATION,
                     "Found default explorer library, will register explorer parsers",
                     "Registration of explorer parsers in default library completed");
  iteratePlugins(EXPLORER_PARSERS);
  m_parsersLoaded = true;
}

void ExplorerLoader::loadExplorerFilterData()
{
  constexpr char OPERATION[] = "ExplorerLoader::loadExplorerFilterData";
  LockableGuard const repositoryGuard(loaderTarget().lock);
  OZF_ASSERT(repositoryGuard.locked(), "repositoryGuard.locked()", SOURCE, OPERATION);
  LockableGuard const lockableGuard(*this);
  OZF_ASSERT(lockableGuard.locked(), "lockableGuard.locked()", SOURCE, OPERATION);
  if (m_filterDataLoaded)
    return;
  // The library is loaded for its parsers, so the entry stays unresolved:
  // filter data comes from plug-ins only.
  loadDefaultLibrary(m_parserInterface, m_filterDataInterface, OPERATION,
                     "Found default explorer library, will register explorer filter data",
                     "Registration of explorer filter data in default library completed");
  iteratePlugins(FILTER_DATA);
  m_filterDataLoaded = true;
}

void ExplorerLoader::loadDefaultLibrary(SymbolResolver& resolver, SymbolResolver const& entry,
                                        char const* operation, char const* foundText,
                                        char const* completedText)
{
  try
  {
    bool found = false;
    if (!getEngineSingleton<RuntimeLoader>(*m_context)
             ->loadInterface(DEFAULT_LIBRARY, resolver, found, nullptr, false, LOAD_MODE) ||
        !found)
      return;
    OZF_LOG(getOzfLogger(), 4, SOURCE, operation, foundText);
    DiscoveryRepository& repository = loaderTarget().repository;
    if (RegistrationEntry const registrationEntry = entryOf(entry))
    {
      RegistrationWatch const watch(DEFAULT_LIBRARY);
      CrashMark const mark(suspectOf(DEFAULT_LIBRARY));
      registrationEntry(&repository);
      OZF_LOG(getOzfLogger(), 4, SOURCE, operation, completedText);
    }
  }
  catch (SymbolException const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
            "Unable to resolve symbol " << exception.what() << " in " << DEFAULT_LIBRARY);
  }
  catch (abi::__forced_unwind const&)
  {
    throw; // of a thread that is cancelled
  }
  catch (...)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
            "Registration in " << DEFAULT_LIBRARY << " failed: " << currentExceptionText());
  }
}

std::size_t ExplorerLoader::interfacesKept() const
{
  return m_explorerInterfaces.size() + m_parserInterfaces.size() + m_filterDataInterfaces.size();
}

void ExplorerLoader::iteratePlugins(Kind kind)
{
  getEngineSingleton<PluginDirector>(*m_context)->iteratePluginLibraries(*this, kind);
}

// How the log lines of one kind name what is registered.
struct ExplorerLoader::Texts
{
  char const* registered;
  char const* interface;
};

void ExplorerLoader::libraryCallback(PluginDirector* director, std::string const& library,
                                     unsigned long long kind)
{
  constexpr char OPERATION[] = "ExplorerLoader::libraryCallback";
  std::unique_ptr<SymbolResolver> resolver;
  Resolvers* resolvers = nullptr;
  Texts texts{};
  switch (kind)
  {
  case EXPLORERS:
    resolver = std::make_unique<RegisterExplorerInterface>();
    resolvers = &m_explorerInterfaces;
    texts = {"explorers", "explorer interface"};
    break;
  case EXPLORER_PARSERS:
    resolver = std::make_unique<RegisterExplorerParserInterface>();
    resolvers = &m_parserInterfaces;
    texts = {"explorer parser", "explorer parser interface"};
    break;
  case FILTER_DATA:
    resolver = std::make_unique<RegisterFilterDataInterface>();
    resolvers = &m_filterDataInterfaces;
    texts = {"explorer filter data", "filter data interface"};
    break;
  default:
    assertionFailed("SHOULD_NOT_GET_HERE", OPERATION, SOURCE, __LINE__);
  }

  std::string reportedName;
  if (!director->loadPluginInterface(library, *resolver, reportedName))
  {
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
            "Did not find the " << texts.interface << " on plugin " << reportedName);
    return;
  }
  CrashSuspect const suspect = suspectOf(library);
  if (getExplorerCrashes().isLeftOut(suspect))
    return; // as the start has told
  RegistrationEntry const entry = entryOf(*resolver);
  resolvers->push_back(std::move(resolver));
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
          "Beginning registration of " << texts.registered << " in " << reportedName);
  DiscoveryRepository& repository = loaderTarget().repository;
  RegistrationWatch const watch(library);
  if (entry != nullptr)
  {
    CrashMark const mark(suspect);
    entry(&repository);
  }
  // Filter data may well have been registered together with the explorers.
  if (kind == EXPLORERS)
    for (auto const& loser : watch.losers())
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Explorer of " << reportedName << " is not used, authority " << loser.authority
                             << ", type " << loser.type << ", priority " << loser.priority
                             << ": authority " << loser.standing << ", type " << loser.standingType
                             << ", priority " << loser.standingPriority << " has its place");
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
          "Registration of " << texts.registered << " in " << reportedName << " completed");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
