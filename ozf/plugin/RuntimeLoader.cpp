#include "ozf/plugin/RuntimeLoader.h"

#include "ozf/base/SystemError.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/plugin/FileTrust.h"

#include <ace/DLL.h>
#include <dlfcn.h>
#include <mutex>
#include <sys/stat.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "RuntimeLoader";

// ACE closes at its end every library that it opened, though objects of theirs
// may live on; this keeps a library in the process all the same.
void keepForGood(std::string const& realPath)
{
  if (dlopen(realPath.c_str(), RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE) == nullptr)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "RuntimeLoader::loadFile",
            "Unable to keep library " << realPath);
}

// ACE's manager of libraries takes its own lock and that of a library in one
// order when it opens and in the other when it closes, so one thread loads at
// a time. Recursive, since a library may load another when it is initialised;
// never destroyed.
std::recursive_mutex& loading()
{
  static auto* const mutex = new std::recursive_mutex;
  return *mutex;
}

// A link that leads nowhere is there and is reported as what it is.
bool exists(std::string const& path)
{
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0)
    return true;
  if (errno != ENOENT && errno != ENOTDIR)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "RuntimeLoader::loadInterface",
            "Unable to look for library " << path << ": " << errorText(errno));
  return false;
}

} // namespace

RuntimeLoader* RuntimeLoader::instance(EngineContext const&) { return new RuntimeLoader; }

bool RuntimeLoader::loadInterface(std::string const& library, SymbolResolver& resolver, bool& found,
                                  std::list<OzfPathname> const* paths, bool unloadAfterwards,
                                  int mode) const
{
  std::list<OzfPathname> const standard = {OzfPathname(getLibraryDirectory())};
  found = false;
  for (auto const& folder : paths != nullptr ? *paths : standard)
  {
    std::string const path = OzfPathname::makeFilename(folder.str(), library + ".so").str();
    if (exists(path))
    {
      found = true;
      return loadFile(path, resolver, unloadAfterwards, mode);
    }
  }
  return false;
}

bool RuntimeLoader::loadFile(std::string const& path, SymbolResolver& resolver,
                             bool unloadAfterwards, int mode) const
{
  constexpr char OPERATION[] = "RuntimeLoader::loadFile";
  std::string realPath;
  std::string reason;
  if (!isTrustedLibrary(path, realPath, reason))
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION,
            "Library " << path << " is refused, " << reason);
    return false;
  }

  std::lock_guard const guard(loading());
  // With the flag, leaving this operation gives back what ACE holds.
  ACE_DLL dll(unloadAfterwards);
  if (dll.open(realPath.c_str(), mode, unloadAfterwards) != 0)
  {
    char const* const error = dll.error();
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION,
            "Unable to load library " << path << ": " << (error == nullptr ? "" : error));
    return false;
  }
  if (!unloadAfterwards)
    keepForGood(realPath);
  resolver.resolveAll(&dll, path.c_str());
  if (unloadAfterwards)
    keepForGood(realPath);
  return true;
}

} // namespace Quillon::Tessarine::Ozf
