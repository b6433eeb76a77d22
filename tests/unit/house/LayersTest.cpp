// The house keeps its order: includes run one way, only the ORB room names an
// ORB product, and no file outgrows a comfortable read.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

using Rooms = std::set<std::string>;

// What each room may include besides itself. Whoever adds a room adds a line.
std::map<std::string, Rooms> const& mayInclude()
{
  static Rooms const allOfOzf = {"ozf/base", "ozf/sync",   "ozf/log", "ozf/config",
                                 "ozf/xml",  "ozf/plugin", "ozf/tls", "ozf/orb"};
  static Rooms const library = []
  {
    Rooms rooms = allOfOzf;
    rooms.insert("discovery");
    return rooms;
  }();
  static Rooms const withScripts = []
  {
    Rooms rooms = library;
    rooms.insert("scripts");
    return rooms;
  }();
  static Rooms const withTools = []
  {
    Rooms rooms = library;
    rooms.insert("tools");
    return rooms;
  }();
  static std::map<std::string, Rooms> const table = {
      {"ozf/base", {}},
      {"ozf/sync", {"ozf/base"}},
      {"ozf/log", {"ozf/base"}},
      {"ozf/config", {"ozf/base", "ozf/log"}},
      {"ozf/xml", {"ozf/base", "ozf/sync", "ozf/log"}},
      {"ozf/plugin", {"ozf/base", "ozf/sync", "ozf/log", "ozf/config"}},
      {"ozf/tls", {"ozf/base", "ozf/log", "ozf/config"}},
      {"ozf/orb", allOfOzf},
      {"discovery", allOfOzf},
      {"scripts", allOfOzf},
      {"explorers", withScripts},
      {"host", allOfOzf},
      {"tools", withScripts},
      {"web", withTools},
      {"publish", withTools},
      {"examples", library},
  };
  return table;
}

// What other rooms may include of tools: what reads discoveries and writes them as JSON.
// The rest is a command's, which ends its process and writes to a terminal.
bool isForOthers(std::string const& header)
{
  static std::set<std::string> const headers = {
      "tools/Collections.h",  "tools/ExitCodes.h", "tools/FactTypes.h", "tools/Fleet.h",
      "tools/Format.h",       "tools/Hosts.h",     "tools/ItemJson.h",  "tools/Metrics.h",
      "tools/Output.h",       "tools/Program.h",   "tools/Records.h",   "tools/Research.h",
      "tools/ServiceStates.h"};
  return headers.contains(header);
}

std::string roomOf(fs::path const& relative)
{
  auto part = relative.begin();
  std::string room = part->string();
  if (room == "ozf" && std::distance(relative.begin(), relative.end()) > 2)
    room += "/" + (++part)->string();
  return room;
}

struct Source
{
  fs::path path; // relative to the root of the sources
  std::string room;
  std::vector<std::string> lines;
};

std::vector<Source> const& sources()
{
  static std::vector<Source> const all = []
  {
    std::vector<Source> found;
    fs::path const root(TQ_SOURCE_DIR);
    for (std::string const top : {"ozf", "discovery", "scripts", "explorers", "host", "tools",
                                  "web", "publish", "examples"})
    {
      for (auto const& entry : fs::recursive_directory_iterator(root / top))
      {
        auto const extension = entry.path().extension();
        if (extension != ".h" && extension != ".cpp")
          continue;
        Source source{fs::relative(entry.path(), root), {}, {}};
        source.room = roomOf(source.path);
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);)
          source.lines.push_back(line);
        found.push_back(std::move(source));
      }
    }
    return found;
  }();
  return all;
}

// The target of an #include line, with its opening quote or bracket; empty
// for other lines.
std::string included(std::string const& line)
{
  constexpr char const* BLANK = " \t";
  auto const hash = line.find_first_not_of(BLANK);
  if (hash == std::string::npos || line[hash] != '#')
    return {};
  std::string const word = "include";
  auto const directive = line.find_first_not_of(BLANK, hash + 1);
  if (directive == std::string::npos || line.compare(directive, word.size(), word) != 0)
    return {};
  auto const open = line.find_first_not_of(BLANK, directive + word.size());
  if (open == std::string::npos || (line[open] != '"' && line[open] != '<'))
    return {};
  auto const close = line.find(line[open] == '"' ? '"' : '>', open + 1);
  return close == std::string::npos ? std::string() : line.substr(open, close - open);
}

// Whether line names the ORB product, its threads or its tools.
bool namesTheProduct(std::string line)
{
  std::transform(line.begin(), line.end(), line.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (char const* name : {"omniorb", "omnithread", "omni_thread", "omni_mutex", "omni_condition",
                           "omniinspoa", "omniidl", "omnipy"})
  {
    if (line.find(name) != std::string::npos)
      return true;
  }
  return false;
}

// One sentence for every include that breaks the order.
std::vector<std::string> offences(fs::path const& path, std::string const& room,
                                  std::string const& target)
{
  std::vector<std::string> found;
  std::string const name = target.substr(1);
  auto const complain = [&](std::string const& why)
  { found.push_back(path.string() + " includes " + name + ": " + why); };

  auto const allowed = mayInclude().find(room);
  if (allowed == mayInclude().end())
  {
    complain("no rule is known for the room " + room);
    return found;
  }
  if (target.front() == '"')
  {
    std::string const wanted = roomOf(fs::path(name));
    if (name.find('/') == std::string::npos || !mayInclude().contains(wanted))
      complain("quoted includes name a room and a file of it");
    else if (wanted != room && !allowed->second.contains(wanted))
      complain(room + " must not include " + wanted);
    else if (wanted == "tools" && wanted != room && !isForOthers(name))
      complain("this is for commands alone");
    return found;
  }
  if (mayInclude().contains(roomOf(fs::path(name))))
    complain("files of the house are included with quotes");
  if (namesTheProduct(name) && room != "ozf/orb")
    complain("only ozf/orb may name an ORB product");
  bool const stub = name == "DiscoveryTypesC.h" || name == "DiscoveryServiceC.h";
  if (stub && room.rfind("ozf", 0) == 0)
    complain("the framework knows nothing of discoveries");
  if (stub && room == "host")
    complain("host includes the framework only");
  return found;
}

} // namespace

TEST(Layers, TheSourcesAreFound)
{
  Rooms rooms;
  for (auto const& source : sources())
    rooms.insert(source.room);
  for (std::string const room : {"ozf/base", "ozf/sync", "ozf/log", "ozf/config", "ozf/xml",
                                 "ozf/plugin", "ozf/tls", "ozf/orb", "discovery"})
    EXPECT_TRUE(rooms.contains(room)) << room;
}

TEST(Layers, IncludesRunOneWay)
{
  for (auto const& source : sources())
  {
    for (auto const& line : source.lines)
    {
      std::string const target = included(line);
      if (target.empty())
        continue;
      for (auto const& offence : offences(source.path, source.room, target))
        ADD_FAILURE() << offence;
    }
  }
}

TEST(Layers, TheRulesSeeAnUpwardInclude)
{
  auto const broken = [](std::string const& room, std::string const& line)
  {
    std::string const target = included(line);
    return !target.empty() && !offences(room + "/X.cpp", room, target).empty();
  };
  EXPECT_TRUE(broken("ozf/base", R"(#include "ozf/log/Logger.h")"));
  EXPECT_TRUE(broken("ozf/sync", R"(  # include "ozf/xml/XmlStr.h" // why not)"));
  EXPECT_TRUE(broken("ozf/orb", R"(#include "discovery/DiscData.h")"));
  EXPECT_TRUE(broken("ozf/orb", "#include <DiscoveryTypesC.h>"));
  EXPECT_TRUE(broken("host", R"(#include "discovery/DiscoverySvc.h")"));
  EXPECT_TRUE(broken("discovery", R"(#include "explorers/Host.h")"));
  EXPECT_TRUE(broken("discovery", "#include <omniORB4/CORBA.h>"));
  EXPECT_TRUE(broken("discovery", "#include <omnithread.h>"));
  EXPECT_TRUE(namesTheProduct("  omniORB::setClientCallTimeout(object, 30000);"));
  EXPECT_TRUE(broken("discovery", "#include <ozf/log/Logger.h>"));
  EXPECT_TRUE(broken("discovery", R"(#include "DiscData.h")"));
  EXPECT_TRUE(broken("discovery", R"(#include "tests/support/TempDir.h")"));
  EXPECT_TRUE(broken("web", R"(#include "tools/Connection.h")"));
  EXPECT_TRUE(broken("tools", R"(#include "web/Answer.h")"));
  EXPECT_TRUE(broken("web", R"(#include "publish/Database.h")"));
  EXPECT_TRUE(broken("attic", R"(#include "ozf/log/Logger.h")"));

  EXPECT_FALSE(broken("ozf/log", R"(#include "ozf/base/Report.h")"));
  EXPECT_FALSE(broken("ozf/orb", "#include <omniORB4/CORBA.h>"));
  EXPECT_FALSE(broken("discovery", R"(#include "ozf/orb/Orb.h")"));
  EXPECT_FALSE(broken("discovery", "#include <DiscoveryTypesC.h>"));
  EXPECT_FALSE(broken("web", R"(#include "tools/Records.h")"));
  EXPECT_FALSE(broken("discovery", R"(// #include "explorers/Host.h")"));
}

TEST(Layers, OnlyTheOrbRoomNamesAnOrbProduct)
{
  for (auto const& source : sources())
  {
    if (source.room == "ozf/orb")
      continue;
    for (std::size_t i = 0; i < source.lines.size(); ++i)
    {
      EXPECT_FALSE(namesTheProduct(source.lines[i]))
          << source.path.string() << ":" << i + 1 << ": " << source.lines[i];
    }
  }
}

TEST(Layers, NoFileOutgrowsAComfortableRead)
{
  constexpr long MOST_LINES = 600;
  std::set<std::string> const extensions = {".h", ".cpp", ".idl", ".py", ".sh", ".tcl", ".cmake"};
  fs::path const root(TQ_SOURCE_DIR);
  int looked = 0;
  for (std::string const top :
       {"bench", "cmake", "discovery", "docs", "examples", "explorers", "host", "idl", "ozf",
        "packaging", "publish", "scripts", "tests", "tools", "web"})
    for (auto const& entry : fs::recursive_directory_iterator(root / top))
      if (extensions.contains(entry.path().extension()))
      {
        std::ifstream in(entry.path());
        EXPECT_GE(MOST_LINES, std::count(std::istreambuf_iterator<char>(in), {}, '\n'))
            << fs::relative(entry.path(), root);
        ++looked;
      }
  EXPECT_LT(400, looked);
}
