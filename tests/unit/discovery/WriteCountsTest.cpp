#include "discovery/WriteCounts.h"

#include "tests/support/Records.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace records;

namespace
{

WriteCounts::Seen countedWrites() { return getWriteCounts().seen(); }

} // namespace

TEST(WriteCounts, tellHowWritesWentAndHowLongTheyTook)
{
  WriteCounts counts;
  counts.add(DS_SUCCESS, std::chrono::microseconds(1000));
  counts.add(DS_SUCCESS, std::chrono::microseconds(1001));
  counts.add(DS_COM_ERROR, std::chrono::seconds(11));
  counts.add(DS_DATA_EXISTS);
  WriteCounts::Seen const seen = counts.seen();
  EXPECT_EQ(2U, seen.stored);
  EXPECT_EQ(1U, seen.outranked);
  EXPECT_EQ(1U, seen.failed);
  EXPECT_EQ(3U, seen.timed);
  EXPECT_EQ(std::chrono::microseconds(11'002'001), seen.time);
  EXPECT_EQ((std::array<std::uint64_t, 5>{1, 2, 2, 2, 2}), seen.within);
}

TEST(WriteCounts, aWriteThatAnExceptionEndsHasFailed)
{
  DiscoveryStatus result = DS_LOGIC_ERROR;
  try
  {
    TimedWrite const timed(result);
    throw std::runtime_error("no memory");
  }
  catch (std::runtime_error const&)
  {
  }
  EXPECT_EQ(1U, countedWrites().failed);
  EXPECT_EQ(1U, countedWrites().timed);
}

TEST(WriteCounts, theDatabaseCountsEachWriteOnce)
{
  TempDir const dir;
  ASSERT_EQ(DS_SUCCESS, store(*make(dir.path(), "host", "web1", 5), "payload"));
  EXPECT_EQ(1U, countedWrites().stored);
  EXPECT_EQ(1U, countedWrites().timed);
  EXPECT_LT(0, countedWrites().time.count());

  ASSERT_EQ(DS_DATA_EXISTS, make(dir.path(), "host", "web1", 4)->open(OM_UPDATE, ""));
  EXPECT_EQ(1U, countedWrites().outranked);

  auto const late = make(dir.path(), "host", "web2", 5);
  ASSERT_EQ(DS_SUCCESS, late->open(OM_UPDATE, ""));
  ASSERT_EQ(DS_SUCCESS, store(*make(dir.path(), "host", "web2", 6), "payload"));
  EXPECT_EQ(DS_DATA_EXISTS, late->persist());
  EXPECT_EQ(2U, countedWrites().stored);
  EXPECT_EQ(2U, countedWrites().outranked);
  EXPECT_EQ(3U, countedWrites().timed);
  EXPECT_EQ(0U, countedWrites().failed);
}

TEST(WriteCounts, aDatabaseThatCannotBeWrittenCountsFailures)
{
  TempDir const dir;
  EXPECT_EQ(DS_OPEN_FAILED, make(dir / "missing", "host", "web1", 5)->open(OM_UPDATE, ""));
  EXPECT_EQ(1U, countedWrites().failed);

  // Opening to read is no write.
  EXPECT_EQ(DS_OPEN_FAILED, make(dir / "missing", "host", "web1", 5)->open(OM_READ, ""));
  EXPECT_EQ(1U, countedWrites().failed);
  EXPECT_EQ(0U, countedWrites().stored);
}
