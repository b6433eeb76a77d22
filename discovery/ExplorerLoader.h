// Finds the libraries that bring explorers, explorer-data parsers and
// filter-data providers, and calls their entry points.
//
// A plug-in library libtqplugin-<name>.so exports one or more of the entry
// symbols with C linkage:
//
//   extern "C" void RegisterExplorers(DiscoveryRepository*);
//   extern "C" void RegisterExplorerParsers(DiscoveryRepository*);
//   extern "C" void RegisterExplorerFilterDataProvider(DiscoveryRepository*);
//
// Each registers with the repository what the library contains. Libraries are
// never unloaded.

#pragma once

#include "discovery/Export.h"
#include "ozf/plugin/EngineContext.h"
#include "ozf/plugin/EngineSingleton.h"
#include "ozf/plugin/PluginDirector.h"
#include "ozf/plugin/SymbolResolver.h"
#include "ozf/sync/OzfLockable.h"

#include <list>
#include <memory>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class DiscoveryRepository;

// What an entry symbol is.
using RegistrationEntry = void (*)(DiscoveryRepository* repository);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc

// One entry symbol each.

class TQ_EXPORT RegisterExplorerInterface : public Quillon::Tessarine::Ozf::SymbolResolver
{
public:
  RegisterExplorerInterface();
};

class TQ_EXPORT RegisterExplorerParserInterface : public Quillon::Tessarine::Ozf::SymbolResolver
{
public:
  RegisterExplorerParserInterface();
};

class TQ_EXPORT RegisterFilterDataInterface : public Quillon::Tessarine::Ozf::SymbolResolver
{
public:
  RegisterFilterDataInterface();
};

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Engine singleton (getEngineSingleton<ExplorerLoader>). Each kind is loaded
// once: first the default library "libtqexplorer", then every permitted
// plug-in. The repository's lock and then the loader's are held for the whole of
// a load, the entry points included, which register with the repository; an
// entry point must not start a load of the kind it serves. What goes wrong in
// one library is logged and does not keep the others out.
class TQ_EXPORT ExplorerLoader : public virtual OzfLockable,
                                 public EngineSingleton,
                                 private LibraryIterationCallback
{
public:
  // The kind argument of libraryCallback.
  enum Kind : unsigned long long
  {
    EXPLORERS = 0,
    EXPLORER_PARSERS = 1,
    FILTER_DATA = 2
  };

  // Where everything registers, and the lock that is held meanwhile.
  struct Target
  {
    DiscoveryRepository& repository;
    OzfLockable& lock;
  };

  // The repository says once where it is, and so is not made before a loader
  // needs it; true.
  static bool setTarget(Target (*target)());

  // A new loader; the context outlives it.
  static ExplorerLoader* instance(EngineContext const& context);
  ~ExplorerLoader() override;

  void loadExplorers();

  // Names restrict this and every later load of any kind to those plug-ins,
  // also when parsers were loaded before; null or empty changes nothing.
  void loadExplorerParsers(std::list<std::string> const* allowedPlugins);

  void loadExplorerFilterData();

  // How many plug-in libraries had an entry so far, of all kinds. For tests.
  std::size_t interfacesKept() const;

  // One plug-in library. Passes on what its entry throws.
  void libraryCallback(PluginDirector* director, std::string const& library,
                       unsigned long long kind) override;

private:
  using Resolvers = std::list<std::unique_ptr<SymbolResolver>>;
  struct Texts;

  explicit ExplorerLoader(EngineContext const* context);

  // Loads the default library with resolver and calls the address that entry
  // holds.
  void loadDefaultLibrary(SymbolResolver& resolver, SymbolResolver const& entry,
                          char const* operation, char const* foundText, char const* completedText);
  void iteratePlugins(Kind kind);

  EngineContext const* m_context;
  RegisterExplorerInterface m_explorerInterface;
  RegisterExplorerParserInterface m_parserInterface;
  RegisterFilterDataInterface m_filterDataInterface;
  Resolvers m_explorerInterfaces;
  Resolvers m_parserInterfaces;
  Resolvers m_filterDataInterfaces;
  bool m_explorersLoaded = false;
  bool m_parsersLoaded = false;
  bool m_filterDataLoaded = false;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
