// Loads libraries at run time.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/plugin/EngineSingleton.h"
#include "ozf/plugin/SymbolResolver.h"

#include <list>
#include <string>

namespace Quillon::Tessarine::Ozf
{

class EngineContext;

// Engine singleton, for any thread. Libraries are loaded into the service's own process, so
// one is refused, with a line at level 1 that says why, unless it and its
// folder (after links are followed) belong to root or to the running user and
// no one else may write to them.
class OZF_EXPORT RuntimeLoader : public EngineSingleton
{
public:
  static RuntimeLoader* instance(EngineContext const& context);

  // Looks for <library>.so in the folders of paths, or in the product's
  // library directory when paths is null, loads it and resolves the symbols.
  // The first folder that has the file decides; found tells whether there was
  // one, and without one nothing is logged. Returns whether the library was
  // loaded and the symbols are resolved; a file that cannot be loaded is
  // reported at level 1. Throws SymbolException. unloadAfterwards drops the
  // library again when resolving failed; a library that was resolved is never
  // unloaded. mode is that of dlopen (257 is RTLD_LAZY | RTLD_GLOBAL).
  bool loadInterface(std::string const& library, SymbolResolver& resolver, bool& found,
                     std::list<OzfPathname> const* paths, bool unloadAfterwards, int mode) const;

  // The same for the file at path.
  bool loadFile(std::string const& path, SymbolResolver& resolver, bool unloadAfterwards,
                int mode) const;
};

} // namespace Quillon::Tessarine::Ozf
