#include "discovery/ExplorerPayload.h"

#include "explorers/FilesystemExplorer.h"
#include "explorers/HostExplorer.h"
#include "explorers/ListenerExplorer.h"
#include "explorers/Machines.h"
#include "explorers/NetworkExplorer.h"
#include "explorers/SoftwareExplorer.h"
#include "explorers/VolumeExplorer.h"
#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <sstream>

using namespace ExplorerTesting;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;

namespace
{

template <class Thing>
std::set<std::string> namesOf(Facts<Thing> facts)
{
  std::set<std::string> names;
  for (auto const& fact : facts)
  {
    EXPECT_TRUE(names.insert(fact.name).second) << fact.name << " is there twice";
    for (char const* at = fact.name; *at != 0; ++at)
      EXPECT_TRUE(std::isalpha(static_cast<unsigned char>(*at))) << fact.name;
  }
  return names;
}

// The rows of the tables in the manual, put together again.
template <class Thing>
std::string rowsOf(Facts<Thing> facts)
{
  std::string rows;
  std::string const types[] = {"text", "number", "size", "duration", "time", "boolean"};
  for (auto const& fact : facts)
    rows += std::string("| `") + fact.name + "` | " + types[static_cast<int>(fact.type)] + " |\n";
  return rows;
}

std::string rowsInManual(std::string const& explorer)
{
  std::string const manual = readText(std::string(TQ_SOURCE_DIR) + "/docs/payload.md");
  std::istringstream section(manual.substr(manual.find("\n## `" + explorer + "`\n") + 4));
  std::string rows;
  for (std::string line; std::getline(section, line) && line.rfind("## ", 0) != 0;)
    if (line.rfind("| `", 0) == 0)
      rows += line.substr(0, line.find(" |", line.find(" | ") + 3)) + " |\n";
  return rows;
}

} // namespace

TEST(FilterDescriptions, theManualListsEveryFactWithItsType)
{
  EXPECT_EQ(rowsOf(filesystemFacts()), rowsInManual("filesystem"));
  EXPECT_EQ(rowsOf(hostFacts()) + rowsOf(machineFacts()), rowsInManual("host"));
  EXPECT_EQ(rowsOf(listenerFacts()), rowsInManual("listener"));
  EXPECT_EQ(rowsOf(nameServiceFacts()) + rowsOf(interfaceFacts()), rowsInManual("network"));
  EXPECT_EQ(rowsOf(softwareFacts()) + rowsOf(packageFacts()), rowsInManual("software"));
  EXPECT_EQ(rowsOf(volumeFacts()), rowsInManual("volume"));
}

TEST(FilterDescriptions, everyFactOfAVolumeCanBeAskedFor)
{
  Document const document(filterDocument(volumeFacts()));
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  ASSERT_LE(2U, document.tags.size());
  EXPECT_EQ("FilterData", document.tags[0]);
  EXPECT_EQ("QueryDescription", document.tags[1]);
  std::set<std::string> described;
  for (auto const& attribute : document.attributeList)
    described.insert(attribute.at("Name"));
  EXPECT_EQ(namesOf(volumeFacts()), described);
}

TEST(FilterDescriptions, sizesAndSharesSayTheirUnit)
{
  Document const document(filterDocument(filesystemFacts()));
  int sizes = 0;
  for (auto const& attribute : document.attributeList)
    if (attribute.count("Unit") != 0)
    {
      bool const share = attribute.at("Name") == "Use";
      EXPECT_EQ(share ? "%" : "bytes", attribute.at("Unit"));
      sizes += share ? 0 : 1;
    }
  EXPECT_EQ(3, sizes);
}

TEST(FilterDescriptions, namesOfFactsAreUniqueAndFitForElements)
{
  EXPECT_FALSE(namesOf(hostFacts()).empty());
  EXPECT_FALSE(namesOf(machineFacts()).empty());
  EXPECT_FALSE(namesOf(filesystemFacts()).empty());
  EXPECT_FALSE(namesOf(listenerFacts()).empty());
  EXPECT_FALSE(namesOf(nameServiceFacts()).empty());
  EXPECT_FALSE(namesOf(interfaceFacts()).empty());
  EXPECT_FALSE(namesOf(softwareFacts()).empty());
  EXPECT_FALSE(namesOf(packageFacts()).empty());
  EXPECT_FALSE(namesOf(volumeFacts()).empty());
}

TEST(FilterDescriptions, aFactIsFoundInAnyCase)
{
  Volume volume;
  volume.size = 5;
  EXPECT_EQ("5", valueOf(volumeFacts(), volume, "size"));
  EXPECT_EQ("5", valueOf(volumeFacts(), volume, "SIZE"));
  EXPECT_FALSE(valueOf(volumeFacts(), volume, "siz"));
  EXPECT_FALSE(valueOf(volumeFacts(), volume, "Label"));
}
