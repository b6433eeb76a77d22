#include "ozf/plugin/PluginDirector.h"

#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/Wildcard.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/plugin/CurrentException.h"
#include "ozf/plugin/RuntimeLoader.h"

#include <ace/Dirent.h>
#include <algorithm>
#include <dlfcn.h>
#include <string_view>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "PluginDirector";

constexpr std::string_view LIBRARY_PREFIX = "lib";
constexpr std::string_view PLUGIN_PREFIX = "libtqplugin-";
constexpr std::string_view SUFFIX = ".so";
constexpr char PATTERN[] = "libtqplugin-*.so";

// "tqplugin-oracle" from "libtqplugin-oracle.so".
std::string pluginName(std::string_view fileName)
{
  if (fileName.starts_with(LIBRARY_PREFIX))
    fileName.remove_prefix(LIBRARY_PREFIX.size());
  if (fileName.ends_with(SUFFIX))
    fileName.remove_suffix(SUFFIX.size());
  return std::string(fileName);
}

bool names(std::string_view allowed, std::string_view fileName)
{
  std::string_view const bare = fileName.substr(0, fileName.size() - SUFFIX.size());
  return allowed == fileName || allowed == bare ||
         allowed == fileName.substr(LIBRARY_PREFIX.size()) ||
         allowed == bare.substr(LIBRARY_PREFIX.size()) ||
         allowed == bare.substr(PLUGIN_PREFIX.size());
}

// In the order of the names. A missing folder holds no plug-ins.
std::vector<std::string> pluginFiles(std::string const& folder)
{
  constexpr char OPERATION[] = "PluginDirector::iteratePluginLibraries";
  std::vector<std::string> files;
  ACE_Dirent directory;
  if (directory.open(folder.c_str()) != 0)
  {
    int const error = errno;
    OZF_LOG(getFrameworkLogger(), error == ENOENT ? 4 : 1, SOURCE, OPERATION,
            "Unable to open plug-in directory " << folder << ": " << errorText(error));
    return files;
  }
  errno = 0;
  while (dirent const* const entry = directory.read())
    if (wildcardcmp(PATTERN, entry->d_name) == 0)
      files.emplace_back(entry->d_name);
  if (errno != 0)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION,
            "Unable to read plug-in directory " << folder << ": " << errorText(errno));
  std::sort(files.begin(), files.end());
  return files;
}

} // namespace

PluginDirector::PluginDirector(EngineContext const& context) : m_context(&context) {}

PluginDirector* PluginDirector::instance(EngineContext const& context)
{
  return new PluginDirector(context);
}

void PluginDirector::iteratePluginLibraries(LibraryIterationCallback& callback,
                                            unsigned long long kind)
{
  std::list<std::string> allowed;
  {
    std::lock_guard guard(m_mutex);
    allowed = m_allowed;
  }
  std::string const folder = getPluginDirectory();
  for (auto const& file : pluginFiles(folder))
  {
    if (!allowed.empty() && std::none_of(allowed.begin(), allowed.end(),
                                         [&](auto const& name) { return names(name, file); }))
      continue;
    callGuarded(
        [&]
        { callback.libraryCallback(this, OzfPathname::makeFilename(folder, file).str(), kind); },
        [&](std::string const& reason)
        {
          OZF_LOG(getFrameworkLogger(), 1, SOURCE, "PluginDirector::iteratePluginLibraries",
                  "Caught exception from plug-in " << pluginName(file) << ", " << reason);
        });
  }
}

bool PluginDirector::loadPluginInterface(std::string const& library, SymbolResolver& resolver,
                                         std::string& reportedName) const
{
  reportedName = pluginName(OzfPathname(library).filename());
  try
  {
    // Everything is bound at once, so that what a plug-in lacks is reported
    // here and does not end the process later; its symbols stay its own.
    return getEngineSingleton<RuntimeLoader>(*m_context)
        ->loadFile(library, resolver, false, RTLD_NOW | RTLD_LOCAL);
  }
  catch (SymbolException const& e)
  {
    OZF_LOG(getFrameworkLogger(), 6, SOURCE, "PluginDirector::loadPluginInterface",
            "Plug-in " << reportedName << " lacks the symbol " << e.what());
    return false;
  }
}

void PluginDirector::setAllowedPlugins(std::list<std::string> const* names)
{
  std::lock_guard guard(m_mutex);
  m_allowed = names == nullptr ? std::list<std::string>() : *names;
}

} // namespace Quillon::Tessarine::Ozf
