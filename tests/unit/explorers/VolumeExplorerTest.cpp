#include "explorers/VolumeExplorer.h"

#include "discovery/FilterParameters.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gmock/gmock.h>

#include <sstream>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using namespace ExplorerTesting;
using Explorers::VolumeExplorer;
using testing::ElementsAre;

namespace
{

class Target : public CollectionData
{
public:
  int open(OpenMode mode, char const*) override { return canOpen && mode == OM_UPDATE ? 1 : 0; }
  long readCollection(unsigned long, void*) const override { return 0; }
  long writeCollection(unsigned long len, void const* buf) const override
  {
    if (!canWrite)
      return 0;
    text.append(static_cast<char const*>(buf), len);
    return 1;
  }

  bool canOpen = true;
  bool canWrite = true;
  mutable std::string text;
};

bool request(std::string const& root, DiscoveryQuery query, char const* filterText, Target* target)
{
  AutoDereference<VolumeExplorer> const explorer(new VolumeExplorer(root));
  AutoDereference<OZFRefCounted> context;
  return explorer->collectionRequested(query, Authority("volume", AT_TQUCLIENT),
                                       Subject("backup-one"), context, filterText, target);
}

std::string parameters(char const* query)
{
  std::ostringstream text;
  FilterParameters(nullptr, query).writeXml(text, XmlStr::UTF_8);
  return text.str();
}

std::vector<std::string> namesAfter(std::string const& filterText)
{
  Target target;
  EXPECT_TRUE(request(fixture("server"), DQ_DISCOVERY_DATA, filterText.c_str(), &target));
  Document const document(target.text);
  EXPECT_TRUE(document.wellFormed) << document.lastError();
  std::vector<std::string> names;
  for (auto const& item : document.items)
    names.push_back(item.name);
  return names;
}

} // namespace

TEST(VolumeExplorer, writesOneItemForEveryVolume)
{
  Target target;
  ASSERT_TRUE(request(fixture("server"), DQ_DISCOVERY_DATA, "", &target));
  Document const document(target.text);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("DiscoveredItems", document.root);
  EXPECT_EQ(10U, document.items.size());
  auto const* const partition = document.find("/dev/sda1");
  ASSERT_NE(nullptr, partition);
  EXPECT_EQ("volume", partition->explorer);
  std::map<std::string, std::string> const facts = {
      {"Path", "/dev/sda1"},
      {"Kind", "partition"},
      {"Parent", "/dev/sda"},
      {"Size", "510656512"},
      {"Start", "1048576"},
      {"Number", "1"},
      {"SectorSize", "512"},
      {"ReadOnly", "false"},
      {"Removable", "false"},
      {"Rotational", "false"},
      {"Uuid", "4e0d6f8a-51c2-4b8e-a1f5-0c9d8e7b6a5f"},
      {"Label", "boot"},
      {"PartitionUuid", "5e5e5e5e-01"},
      {"Vendor", "ATA"},
      {"Model", "Example SSD 500"}};
  EXPECT_EQ(facts, partition->facts);
  EXPECT_EQ("/dev/sda3", document.find("/dev/dm-0")->facts.at("Parts"));
}

TEST(VolumeExplorer, aRequestThatDoesNotSayWhatItWantsGetsTheVolumes)
{
  Target target;
  ASSERT_TRUE(request(fixture("server"), DQ_UNDEFINED, "", &target));
  EXPECT_EQ("DiscoveredItems", Document(target.text).root);
}

TEST(VolumeExplorer, aRequestForFilterDataGetsTheDescription)
{
  Target target;
  ASSERT_TRUE(request(fixture("server"), DQ_FILTER_DATA, "", &target));
  Document const document(target.text);
  EXPECT_EQ("FilterData", document.root);
  EXPECT_EQ(Explorers::volumeFacts().size(), document.attributeList.size());
}

TEST(VolumeExplorer, noFilterOrAnEmptyQueryAsksForEverything)
{
  EXPECT_EQ(10U, namesAfter("").size());
  EXPECT_EQ(10U, namesAfter(parameters("")).size());
  EXPECT_EQ(10U, namesAfter(parameters("  ")).size());
  Target target;
  ASSERT_TRUE(request(fixture("server"), DQ_DISCOVERY_DATA, nullptr, &target));
  EXPECT_EQ(10U, Document(target.text).items.size());
}

TEST(VolumeExplorer, aQuerySelectsVolumes)
{
  EXPECT_THAT(namesAfter(parameters("Kind = \"partition\"")),
              ElementsAre("/dev/sda1", "/dev/sda2", "/dev/sda3"));
  EXPECT_THAT(namesAfter(parameters("size > 600G")), ElementsAre("/dev/nvme0n1"));
  EXPECT_TRUE(namesAfter(parameters("Label = \"nowhere\"")).empty());
}

TEST(VolumeExplorer, aFilterThatCannotBeUnderstoodIsIgnoredWithALogLine)
{
  LogCapture const log;
  EXPECT_EQ(10U, namesAfter(parameters("size >")).size());
  EXPECT_NE(std::string::npos, log.text().find("Ignoring a query that cannot be understood: "))
      << log.text();
  EXPECT_EQ(10U, namesAfter("<FilterParameters>").size());
  EXPECT_NE(std::string::npos, log.text().find("Ignoring filter parameters that cannot be read: "))
      << log.text();
}

TEST(VolumeExplorer, aHostWithoutVolumesAnswersWithNone)
{
  TempDir const dir;
  Target target;
  ASSERT_TRUE(request(dir.path(), DQ_DISCOVERY_DATA, "", &target));
  Document const document(target.text);
  EXPECT_TRUE(document.wellFormed);
  EXPECT_TRUE(document.items.empty());
}

TEST(VolumeExplorer, aTargetThatTakesNothingIsAFailure)
{
  LogCapture const log;
  Target closed;
  closed.canOpen = false;
  EXPECT_FALSE(request(fixture("server"), DQ_DISCOVERY_DATA, "", &closed));
  EXPECT_EQ("", closed.text);
  Target full;
  full.canWrite = false;
  EXPECT_FALSE(request(fixture("server"), DQ_DISCOVERY_DATA, "", &full));
  EXPECT_FALSE(request(fixture("server"), DQ_DISCOVERY_DATA, "", nullptr));
  EXPECT_EQ(3, log.count(1, "VolumeExplorer::collectionRequested",
                         "Explorer volume cannot write its collection"))
      << log.text();
}
