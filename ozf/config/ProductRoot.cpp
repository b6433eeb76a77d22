#include "ozf/config/ProductRoot.h"

#include "ozf/base/OzfPathname.h"

#include <cstdlib>

namespace Quillon::Tessarine::Ozf
{

namespace
{

std::string below(char const* relative)
{
  return OzfPathname::makeFilename(getProductRoot(), relative).str();
}

} // namespace

std::string getProductRoot()
{
  char const* const fromEnvironment = std::getenv("TESSARINE_ROOT");
  if (fromEnvironment == nullptr || *fromEnvironment == '\0')
    return "/usr/kestrel/tessarine";
  std::string root = fromEnvironment;
  while (root.size() > 1 && root.back() == '/')
    root.pop_back();
  return root;
}

std::string getConfigurationPath() { return below("etc/tq.conf"); }
std::string getDefaultDatabasePath() { return below("db/discovery"); }
std::string getLibraryDirectory() { return below("lib"); }
std::string getPluginDirectory() { return below("lib/plugins"); }
std::string getScriptDirectory() { return below("explorers.d"); }
std::string getLogDirectory() { return below("log"); }

} // namespace Quillon::Tessarine::Ozf
