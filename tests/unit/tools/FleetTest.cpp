#include "tools/Fleet.h"

#include "tests/support/ListedRecords.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using tqdiscoctl::Fleet;
using tqdiscoctl::Record;
using tqtest::LISTED_AT;
using tqtest::listedRecord;

TEST(Fleet, countsHostsByWhatTheirExplorersTold)
{
  Fleet fleet{OzfObjTime(LISTED_AT)};
  fleet.add(listedRecord("web1", "host", 30));
  fleet.add(listedRecord("web1", "service", 10));
  fleet.add(listedRecord("web2", "host", 4000));
  fleet.add(listedRecord("rack7", "inventory", 5, AT_EXTSRC));
  EXPECT_EQ(fleet.discoveries(), 4U);
  EXPECT_EQ(fleet.hosts(), 2U) << "what was put in is about no host";
  EXPECT_EQ(fleet.oldestReport().seconds(), LISTED_AT - 4000);
  EXPECT_EQ(fleet.hostAges(), (tqdiscoctl::AgeCounts{1, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(fleet.ages(), (tqdiscoctl::AgeCounts{3, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(fleet.expiring(), 0U);
}

TEST(Fleet, aHostIsSilentWhoseServiceTellsNothing)
{
  Fleet fleet{OzfObjTime(LISTED_AT)};
  fleet.add(listedRecord("web2", "host", 4000));
  EXPECT_TRUE(fleet.silent().empty()) << "where no service tells of itself, none is missed";
  fleet.add(listedRecord("web1", "service", 10));
  fleet.add(listedRecord("web3", "service", 10, AT_EXTSRC)); // of the same name, and put in
  ASSERT_EQ(fleet.silent().size(), 1U);
  EXPECT_EQ(fleet.silent().begin()->first, "web2");
  EXPECT_EQ(fleet.silent().begin()->second.seconds(), LISTED_AT - 4000);
  fleet.addTelling("web2");
  EXPECT_TRUE(fleet.silent().empty());
}

TEST(Fleet, whatIsOnDemandHasNoAgeAndMakesAHost)
{
  Fleet fleet{OzfObjTime(LISTED_AT)};
  Record record = listedRecord("web4", "volume", 0);
  record.discovered = record.expires = OzfObjTime();
  fleet.add(record);
  fleet.add(listedRecord("web1", "service", 10));
  EXPECT_EQ(fleet.hosts(), 2U);
  ASSERT_EQ(fleet.silent().count("web4"), 1U);
  EXPECT_TRUE(fleet.silent().at("web4").isZero());
  EXPECT_EQ(fleet.ages()[0], 1U);
  EXPECT_EQ(fleet.oldestReport().seconds(), LISTED_AT - 10);
}

TEST(Fleet, tellsWhatExpiresWithinTheHour)
{
  Fleet fleet{OzfObjTime(LISTED_AT)};
  for (std::int64_t const left : {-5, 3600, 3601})
  {
    fleet.add(listedRecord("web1", "host", 30, AT_TQUCLIENT, left));
  }
  EXPECT_EQ(fleet.expiring(), 2U);
}

// Nobody's names may fill the memory, nor a reader's store of series.
TEST(Fleet, authoritiesAreBoundedAndThoseOfMachinesAreOne)
{
  Fleet fleet{OzfObjTime(LISTED_AT)};
  for (std::size_t i = 0; i < Fleet::MOST_AUTHORITIES + 500; ++i)
  {
    fleet.add(listedRecord("web1", "machine." + std::to_string(i), 30));
    fleet.add(listedRecord("web1", "refresh.a" + std::to_string(i), 30, AT_EXTSRC));
  }
  EXPECT_EQ(fleet.authorities().size(), 2U);
  EXPECT_EQ(fleet.authorities().at({"machine", AT_TQUCLIENT}), Fleet::MOST_AUTHORITIES + 500);
  for (std::size_t i = 0; i < Fleet::MOST_AUTHORITIES + 500; ++i)
    fleet.add(listedRecord("web1", "a" + std::to_string(i), 30));
  EXPECT_EQ(fleet.authorities().size(), Fleet::MOST_AUTHORITIES + 1);
  EXPECT_EQ(fleet.authorities().at({"", AT_TQUCLIENT}), 502U);
}
