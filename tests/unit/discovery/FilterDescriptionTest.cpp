#include "discovery/FilterDescription.h"

#include "discovery/DiscDB.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/discovery/RepositoryTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct FilterDescriptionTest : testing::Test
{
  TempDir root;
  std::optional<LocalMaster> master;

  void SetUp() override
  {
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    master.emplace(root);
  }

  static void store(std::string const& subject, std::string const& authority, AuthorityType type,
                    std::string const& payload)
  {
    LocalMaster::store(DQ_FILTER_DATA, subject, Authority(authority, type), payload);
  }

  static std::string description(std::string const& attributes)
  {
    return "<QueryDescription>" + attributes + "</QueryDescription>";
  }
  static std::string attribute(std::string const& name)
  {
    return "<Attribute Name=\"" + name + "\" Type=\"size\"/>";
  }
  static std::string filterData(std::string const& descriptions)
  {
    return "<FilterData>" + descriptions + "</FilterData>";
  }

  static std::string names(OzfQuery const& query)
  {
    std::vector<std::string> all; // the database has no order
    for (auto const& one : query.attributes())
      all.push_back(one.name.str());
    std::sort(all.begin(), all.end());
    std::string text;
    for (auto const& one : all)
      text += one + " ";
    return text;
  }
};

// Notes what it is asked and gives nothing.
class AskedPull : public tqtest::FakePull
{
public:
  AskedPull() : FakePull("asked") {}
  bool collectionRequested(DiscoveryQuery query, Authority const&, Subject const&,
                           AutoDereference<OZFRefCounted>&, char const* filterText,
                           CollectionData*) override
  {
    questions.push_back({query, filterText});
    return false;
  }
  std::vector<std::pair<DiscoveryQuery, std::string>> questions;
};

// What is stored carries no kind; a pull explorer is told which is wanted.
TEST_F(FilterDescriptionTest, AsksForFilterDataAndSendsNoFilterAlong)
{
  AutoDereference<AskedPull> const explorer(new AskedPull);
  getDiscoveryRepository().registerExplorer(new Subject("askedhost"), explorer.get(), 10,
                                            new Authority("asked", AT_TQUCLIENT), false);
  FilterDescription const description("asked", "askedhost");
  using Questions = decltype(explorer->questions);
  EXPECT_EQ((Questions{{DQ_FILTER_DATA, ""}}), explorer->questions);
}

TEST_F(FilterDescriptionTest, WithoutFilterDataItIsAnEmptyQuery)
{
  FilterDescription const description("filesystem", "web1");
  EXPECT_TRUE(description.attributes().empty());
  EXPECT_EQ("", description.getQuery());
}

TEST_F(FilterDescriptionTest, AllDescriptionsThatMatchAreMerged)
{
  store("web1", "filesystem", AT_EXTSRC,
        filterData(description(attribute("size") + attribute("type")) +
                   description(attribute("free") + attribute("size"))));
  store("web1", "host", AT_TQUCLIENT, filterData(description(attribute("name"))));
  store("web2", "host", AT_TQUCLIENT, filterData(description(attribute("other"))));
  EXPECT_EQ("free size type ", names(FilterDescription("filesystem", "web1")));
  EXPECT_EQ("free name size type ", names(FilterDescription("*", "web1")));
  EXPECT_EQ("free name other size type ", names(FilterDescription("", "")));
  EXPECT_EQ("other ", names(FilterDescription("host", "web2")))
      << "the authority comes first, the subject second";
}

TEST_F(FilterDescriptionTest, OtherItemsAreSkipped)
{
  store("web1", "host", AT_TQUCLIENT,
        "<DiscoveredItems><DISCOVERED Name=\"a\"/></DiscoveredItems>");
  store("web1", "filesystem", AT_EXTSRC, filterData(description(attribute("size"))));
  EXPECT_EQ("size ", names(FilterDescription("*", "web1")));
}

TEST_F(FilterDescriptionTest, WhatIsReadBeforeAMistakeCounts)
{
  store("web1", "host", AT_TQUCLIENT, "<FilterData>" + description(attribute("a")) + "<Broken>");
  store("web1", "filesystem", AT_EXTSRC, filterData(description(attribute("b"))));
  EXPECT_EQ("a b ", names(FilterDescription("*", "web1")));
}

TEST_F(FilterDescriptionTest, WithoutAMasterToAskItIsEmpty)
{
  AutoDereference<DiscoveryFramework> const reader(
      new DiscoveryFramework("discovery", DST_NONE, nullptr, false));
  writeText(root / "etc/tq.conf", "CLIENT_NAME = here\n");
  getDiscoveryRepository().setDiscoveryFramework(reader.get());
  LogCapture log;
  EXPECT_TRUE(FilterDescription("", "").attributes().empty());
  EXPECT_TRUE(log.has(1, "getAuthSubIterator", "Failed to get a handle to discoveries"))
      << log.text();
}

} // namespace

TEST_F(FilterDescriptionTest, SoManyDescriptionsAreMergedAndThenItIsIncomplete)
{
  constexpr std::size_t NAME = 100'000;
  constexpr std::size_t STORED = 2 * MOST_DESCRIBED / (2 * NAME);
  for (std::size_t i = 0; i < STORED; ++i)
  {
    std::string const name = "a" + std::to_string(i) + std::string(NAME, 'x');
    store("host", "authority" + std::to_string(i), AT_EXTSRC,
          filterData(description(attribute(name))));
  }
  LogCapture log;
  FilterDescription const all("authority*", "host");
  EXPECT_TRUE(all.isIncomplete());
  EXPECT_LT(all.attributes().size(), STORED * 6 / 10);
  EXPECT_GT(all.attributes().size(), STORED * 4 / 10);
  EXPECT_TRUE(log.has(1, "FilterDescription::FilterDescription",
                      "Left out what can be asked for beyond 16777216 bytes of it, subject host & "
                      "authority authority*"))
      << log.text();
  // What others describe under the same names costs nothing more.
  std::string const again = attribute("a0" + std::string(NAME, 'x'));
  for (std::size_t i = 0; i < STORED; ++i)
    store("host", "authority" + std::to_string(i), AT_EXTSRC, filterData(description(again)));
  FilterDescription const one("authority*", "host");
  EXPECT_FALSE(one.isIncomplete());
  EXPECT_EQ(one.attributes().size(), 1U);
}
