#include "discovery/PeerLimits.h"

#include "ozf/config/Configuration.h"
#include "ozf/orb/ConnectionTable.h"
#include "ozf/orb/Corba.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct PeerLimitsTest : testing::Test
{
  DayBytes days;
  std::chrono::steady_clock::time_point now{};

  PeerLimitsTest()
  {
    days.setClock([this] { return now; });
  }

  static void set(char const* key, std::string const& value)
  {
    LogCapture const quiet;
    overrideConfiguration(key, value);
    reloadConfiguration();
  }
};

} // namespace

TEST_F(PeerLimitsTest, ADayBeginsWithTheFirstBytesOfAPeerAndEndsAfterItsHours)
{
  set("LIMIT_PEER_DAY_BYTES", "100");
  EXPECT_TRUE(days.add("192.0.2.1", 60));
  EXPECT_FALSE(days.add("192.0.2.1", 41));
  EXPECT_TRUE(days.add("192.0.2.1", 40)) << "what was too much does not count";
  EXPECT_TRUE(days.add("192.0.2.2", 100)) << "another peer has a day of its own";
  now += std::chrono::hours(24) - std::chrono::seconds(1);
  EXPECT_FALSE(days.add("192.0.2.1", 1));
  now += std::chrono::seconds(1);
  EXPECT_TRUE(days.add("192.0.2.1", 100));
}

TEST_F(PeerLimitsTest, WithoutALimitNothingIsKeptInMind)
{
  EXPECT_TRUE(days.add("192.0.2.1", std::uint64_t(1) << 60));
  set("LIMIT_PEER_DAY_BYTES", "1");
  EXPECT_TRUE(days.add("192.0.2.1", 1));
}

TEST_F(PeerLimitsTest, OfVeryManyPeersTheOneWhoseDayEndsFirstIsForgotten)
{
  set("LIMIT_PEER_DAY_BYTES", "1");
  ASSERT_TRUE(days.add("first", 1));
  now += std::chrono::seconds(1);
  ASSERT_TRUE(days.add("second", 1));
  now += std::chrono::seconds(1);
  for (std::size_t i = 1; i < DayBytes::MOST_PEERS; ++i)
    ASSERT_TRUE(days.add("peer" + std::to_string(i), 1));
  EXPECT_FALSE(days.add("second", 1));
  EXPECT_TRUE(days.add("first", 1));
}

TEST_F(PeerLimitsTest, WhatTheProcessAsksOfItselfHasNoLimit)
{
  set("LIMIT_PEER_ITERATORS", "1");
  set("LIMIT_PEER_DAY_BYTES", "1");
  auto const first = takeIteratorPlace("asks", {"asks"});
  auto const second = takeIteratorPlace("asks", {"asks"});
  EXPECT_NO_THROW(requireDayBytes("asks", {"asks"}, 1000));
  Peer peer;
  peer.address = "192.0.2.1";
  PeerOfCall const call(&peer);
  auto const place = takeIteratorPlace("asks", {"asks"});
  EXPECT_THROW(takeIteratorPlace("asks", {"asks"}), CORBA::NO_RESOURCES);
  EXPECT_THROW(requireDayBytes("asks", {"asks"}, 1000), CORBA::NO_RESOURCES);
}
