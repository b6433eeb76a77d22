#include "discovery/RemoteDBWire.h"

#include "discovery/DiscoveryRepository.h"
#include "discovery/RemoteDB.h"
#include "ozf/config/ConfigurationKeys.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr std::int64_t NOW = 1'800'000'000;

// A clock that stands still.
class RemoteDBWireTest : public testing::Test
{
protected:
  RemoteDBWireTest()
  {
    OzfObjTime::setClock([] { return OzfObjTime(NOW, 0); });
  }
  ~RemoteDBWireTest() override { OzfObjTime::setClock(nullptr); }

  static Remote::CollAttributes sent(CollectionAttributes const& attributes)
  {
    Remote::CollAttributes wire;
    toWire(&attributes, wire);
    return wire;
  }
};

} // namespace

TEST_F(RemoteDBWireTest, SendsTypeStorageAndWholeSeconds)
{
  auto const wire =
      sent(CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime(1234, 999'999),
                                OzfObjTime(600, 500'000), 42));
  EXPECT_EQ(wire.colType, CT_POINT_IN_TIME);
  EXPECT_EQ(wire.colStorage, CS_CENTRALREPOSITORY);
  EXPECT_EQ(wire.priority, 42);
  EXPECT_EQ(wire.discoveryTime, 1234U);
  EXPECT_EQ(wire.timeToLive, 600U);
}

TEST_F(RemoteDBWireTest, SendsZerosForARecordWithoutAttributes)
{
  Remote::CollAttributes wire;
  wire.colType = CT_POINT_IN_TIME;
  wire.colStorage = CS_CENTRALREPOSITORY;
  wire.priority = 1;
  wire.timeToLive = 2;
  wire.discoveryTime = 3;
  toWire(nullptr, wire);
  EXPECT_EQ(wire.colType, CT_CONFIGURATION);
  EXPECT_EQ(wire.colStorage, CS_LOCALONLY);
  EXPECT_EQ(wire.priority, 0);
  EXPECT_EQ(wire.timeToLive, 0U);
  EXPECT_EQ(wire.discoveryTime, 0U);
}

TEST_F(RemoteDBWireTest, ReceiverOfAStoredRecordComesToTheSameExpiry)
{
  CollectionAttributes stored(CT_CONFIGURATION, CS_LOCALONLY, OzfObjTime(), OzfObjTime(), 0);
  stored.setExpiresTime(OzfObjTime(NOW + 1000));
  auto const wire = sent(stored);
  EXPECT_EQ(wire.timeToLive, 800U);
  std::unique_ptr<CollectionAttributes> const received(fromWire(wire));
  EXPECT_EQ(received->getExpiresTime(), stored.getExpiresTime());
}

TEST_F(RemoteDBWireTest, ExpiredOrNeverExpiringRecordsHaveNoTimeToLive)
{
  CollectionAttributes stored(CT_CONFIGURATION, CS_LOCALONLY, OzfObjTime(), OzfObjTime(), 0);
  stored.setExpiresTime(OzfObjTime(NOW - 1000));
  EXPECT_EQ(sent(stored).timeToLive, 0U);
  stored.setExpiresTime(OzfObjTime());
  EXPECT_EQ(sent(stored).timeToLive, 0U);
  stored.setExpiresTime(OzfObjTime::max());
  EXPECT_LT(sent(stored).timeToLive, static_cast<unsigned long long>(OzfObjTime::max().seconds()));
  EXPECT_GT(sent(stored).timeToLive, 0U);
}

TEST_F(RemoteDBWireTest, NegativeTimesAreSentAsZero)
{
  auto const wire =
      sent(CollectionAttributes(CT_CONFIGURATION, CS_LOCALONLY, OzfObjTime(-5), OzfObjTime(-7), 0));
  EXPECT_EQ(wire.discoveryTime, 0U);
  EXPECT_EQ(wire.timeToLive, 0U);
}

TEST_F(RemoteDBWireTest, ReceivesTheTimesInTheirPlaces)
{
  Remote::CollAttributes wire;
  wire.colType = CT_REAL_TIME;
  wire.colStorage = CS_CENTRALREPOSITORY;
  wire.priority = 9;
  wire.timeToLive = 400;
  wire.discoveryTime = 77;
  std::unique_ptr<CollectionAttributes> const received(fromWire(wire));
  EXPECT_EQ(received->getType(), CT_REAL_TIME);
  EXPECT_EQ(received->getStorage(), CS_CENTRALREPOSITORY);
  EXPECT_EQ(received->getPriority(), 9U);
  EXPECT_EQ(received->getDiscoveryTime(), OzfObjTime(77));
  EXPECT_EQ(received->getValidityInterval(), OzfObjTime(400));
  EXPECT_EQ(received->getExpiresTime(), OzfObjTime(NOW + 500));
}

TEST_F(RemoteDBWireTest, HugeTimesFromAPeerBecomeTheLatestTime)
{
  Remote::CollAttributes wire;
  toWire(nullptr, wire);
  wire.timeToLive = std::numeric_limits<CORBA::ULongLong>::max();
  wire.discoveryTime = std::numeric_limits<CORBA::ULongLong>::max();
  std::unique_ptr<CollectionAttributes> const received(fromWire(wire));
  EXPECT_EQ(received->getDiscoveryTime().seconds(), OzfObjTime::max().seconds());
  EXPECT_EQ(received->getExpiresTime(), OzfObjTime::max());
}

TEST_F(RemoteDBWireTest, PrioritiesKeepTheirBits)
{
  auto wire = sent(CollectionAttributes(CT_CONFIGURATION, CS_LOCALONLY, OzfObjTime(), OzfObjTime(),
                                        0xffff'fffe));
  EXPECT_EQ(wire.priority, -2);
  std::unique_ptr<CollectionAttributes> const received(fromWire(wire));
  EXPECT_EQ(received->getPriority(), 0xffff'fffeU);
}

TEST_F(RemoteDBWireTest, NamesMustBeThereAndOfBoundedLength)
{
  std::string const longest(MAX_WIRE_NAME, 'x');
  std::string const tooLong(MAX_WIRE_NAME + 1, 'x');
  EXPECT_TRUE(areUsableNames("host", "volume"));
  EXPECT_TRUE(areUsableNames(longest.c_str(), longest.c_str()));
  EXPECT_FALSE(areUsableNames("", "volume"));
  EXPECT_FALSE(areUsableNames("host", ""));
  EXPECT_FALSE(areUsableNames(nullptr, "volume"));
  EXPECT_FALSE(areUsableNames("host", nullptr));
  EXPECT_FALSE(areUsableNames(tooLong.c_str(), "volume"));
  EXPECT_FALSE(areUsableNames("host", tooLong.c_str()));
}

TEST_F(RemoteDBWireTest, NamesThatAreKeptMustBeShorterAsTheyAreShown)
{
  std::string const longest(MAX_KEPT_NAME, 'x');
  std::string const tooLong(MAX_KEPT_NAME + 1, 'x');
  std::string const longWhenShown(MAX_KEPT_NAME / 2, '\x01'); // three bytes each
  EXPECT_TRUE(areKeepableNames(longest.c_str(), longest.c_str()));
  EXPECT_FALSE(areKeepableNames(tooLong.c_str(), "a"));
  EXPECT_FALSE(areKeepableNames("s", tooLong.c_str()));
  EXPECT_FALSE(areKeepableNames(longWhenShown.c_str(), "a"));
  EXPECT_FALSE(areKeepableNames("", "a"));
}

// Each of them is listed twice, as an explorer and from the cache; 100 bytes are
// more than the rest of a record takes.
TEST_F(RemoteDBWireTest, AllRegistrationsOfTheLongestNamesFitIntoOneAnswer)
{
  constexpr std::size_t RECORD = sizeof(Remote::Discovery) + 2 * MAX_KEPT_NAME + 100;
  EXPECT_LT(2 * static_cast<std::size_t>(configKey("LIMIT_REGISTRATIONS").high) * RECORD,
            RemoteDiscoveryIterator::MAX_RECORD_BYTES);
}

TEST_F(RemoteDBWireTest, EveryUsableNameMakesASubjectAndAnAuthority)
{
  for (char const* name :
       {":", "@", "@:", "a@", ":80", "[", "[]", "[::1]:80", "//", "%", "\x01", "\xff", " ", "*"})
  {
    EXPECT_TRUE(areUsableNames(name, name)) << name;
    EXPECT_NO_THROW(Subject{name}) << name;
    EXPECT_NO_THROW(Authority(name, AT_TQUCLIENT)) << name;
  }
}
