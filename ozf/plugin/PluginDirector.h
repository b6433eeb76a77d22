// Finds the product's plug-in libraries.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/plugin/EngineContext.h"
#include "ozf/plugin/EngineSingleton.h"
#include "ozf/plugin/SymbolResolver.h"

#include <list>
#include <mutex>
#include <string>

namespace Quillon::Tessarine::Ozf
{

class PluginDirector;

class OZF_EXPORT LibraryIterationCallback
{
public:
  virtual ~LibraryIterationCallback() = default;
  virtual void libraryCallback(PluginDirector* director, std::string const& library,
                               unsigned long long kind) = 0;
};

// Engine singleton, for any thread. Plug-in libraries are the files libtqplugin-*.so in the
// product's plug-in directory; library names are paths.
class OZF_EXPORT PluginDirector : public EngineSingleton
{
public:
  static PluginDirector* instance(EngineContext const& context);

  // Calls back for every permitted plug-in library, in the order of the file
  // names. What a callback throws is logged at level 1 with the plug-in's
  // name, and the iteration goes on.
  void iteratePluginLibraries(LibraryIterationCallback& callback, unsigned long long kind);

  // Loads the library for good and resolves the symbols. False when it cannot be loaded
  // or lacks a required symbol; a file that cannot be loaded is reported at
  // level 1. reportedName becomes the plug-in's name: the file's name without
  // "lib" and ".so" ("tqplugin-oracle").
  bool loadPluginInterface(std::string const& library, SymbolResolver& resolver,
                           std::string& reportedName) const;

  // Restricts later iterations to the plug-ins named: by file name, with or
  // without ".so" and "lib", or by what follows "libtqplugin-". Null or empty
  // lifts the restriction.
  void setAllowedPlugins(std::list<std::string> const* names);

private:
  explicit PluginDirector(EngineContext const& context);

  EngineContext const* m_context; // the engine's own, outlives this object
  mutable std::mutex m_mutex;     // guards m_allowed; never held over a callback
  std::list<std::string> m_allowed;
};

} // namespace Quillon::Tessarine::Ozf
