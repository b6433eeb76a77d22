// The library's units know one another one way: who includes a unit is not
// included by it, not through others either. A unit is a header with its source
// and with the sources that it was split into.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace
{

using Units = std::set<std::string>;

struct UnitGraph
{
  std::map<std::string, Units> includes;
};

// The files are names and texts, so that made-up ones can be judged as well.
using UnitFiles = std::map<std::string, std::string>;

UnitFiles libraryFiles()
{
  UnitFiles files;
  for (auto const& entry :
       std::filesystem::directory_iterator(std::string(TQ_SOURCE_DIR) + "/discovery"))
  {
    auto const extension = entry.path().extension();
    if (extension != ".h" && extension != ".cpp")
      continue;
    std::ifstream in(entry.path());
    files[entry.path().filename()] =
        std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return files;
}

// A source without a header belongs to the one whose name its own begins with,
// the longest of them.
std::string unitOf(std::string const& file, UnitFiles const& files)
{
  std::string const stem = file.substr(0, file.rfind('.'));
  for (std::string begin = stem; !begin.empty(); begin.pop_back())
    if (files.contains(begin + ".h"))
      return begin;
  return stem;
}

UnitGraph graphOf(UnitFiles const& files)
{
  UnitGraph graph;
  std::string const include = "#include \"discovery/";
  for (auto const& [name, text] : files)
  {
    std::string const unit = unitOf(name, files);
    graph.includes[unit];
    for (auto at = text.find(include); at != std::string::npos; at = text.find(include, at + 1))
    {
      auto const begin = at + include.size();
      std::string const other = unitOf(text.substr(begin, text.find('"', begin) - begin), files);
      if (other != unit)
        graph.includes[unit].insert(other);
    }
  }
  return graph;
}

// All that a unit includes, and what that includes.
Units reachableFrom(std::string const& unit, UnitGraph const& graph)
{
  Units reached;
  std::vector<std::string> open{unit};
  while (!open.empty())
  {
    std::string const next = open.back();
    open.pop_back();
    auto const found = graph.includes.find(next);
    if (found == graph.includes.end())
      continue;
    for (std::string const& other : found->second)
      if (reached.insert(other).second)
        open.push_back(other);
  }
  return reached;
}

// The units that include themselves by way of others.
Units unitsInCircles(UnitGraph const& graph)
{
  Units found;
  for (auto const& [unit, included] : graph.includes)
    if (reachableFrom(unit, graph).contains(unit))
      found.insert(unit);
  return found;
}

} // namespace

// They start and end together, and each drives the others.
TEST(IncludeGraph, OnlyTheLifeCycleGoesInACircle)
{
  Units const lifeCycle = {"DiscoveryFramework", "DiscoveryRepository",
                           "DiscoveryRepositoryRefresh", "DiscoveryRepositoryTimers"};
  UnitGraph const graph = graphOf(libraryFiles());
  ASSERT_LT(40U, graph.includes.size()) << "the library's sources were not found";
  for (std::string const& unit : unitsInCircles(graph))
    EXPECT_TRUE(lifeCycle.contains(unit)) << unit << " includes itself by way of others";
}

// What makes those who only talk to other hosts independent of the hub.
TEST(IncludeGraph, TheStoresAndTheRemotePullDoWithoutTheRepository)
{
  UnitGraph const graph = graphOf(libraryFiles());
  for (char const* unit :
       {"DiscDB", "DiscDBMem", "RemoteDB", "ExplorerRemotePull", "ExplorerLoader", "OpenWriters"})
  {
    ASSERT_TRUE(graph.includes.contains(unit)) << unit;
    EXPECT_FALSE(reachableFrom(unit, graph).contains("DiscoveryRepository")) << unit;
  }
}

TEST(IncludeGraph, FindsACircleThroughASourceOfItsOwnAndOneThatWasSplitOff)
{
  UnitGraph const graph = graphOf({{"A.h", ""},
                                   {"A.cpp", "#include \"discovery/A.h\"\n"},
                                   {"AMore.cpp", "#include \"discovery/B.h\"\n"},
                                   {"B.h", "#include \"discovery/C.h\"\n"},
                                   {"C.h", ""},
                                   {"C.cpp", "// C\n#include \"discovery/A.h\"\n"},
                                   {"D.cpp", "#include \"discovery/A.h\"\n"}});
  EXPECT_EQ((Units{"A", "B", "C"}), unitsInCircles(graph));
}
