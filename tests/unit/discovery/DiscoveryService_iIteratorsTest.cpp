#include "discovery/DiscoveryService_iIterators.h"

#include "discovery/DiscoveryLog.h"

#include "discovery/DiscoveryService_iWriter.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/RemoteDB.h"
#include "ozf/config/Limits.h"
#include "tests/support/AuditCapture.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <limits>

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
namespace Remote = Quillon::Tessarine::Ozf::DiscoverySvc::Remote;

namespace
{

struct DiscoveryService_iIteratorsTest : ServiceTest
{
  void storeMany(int count)
  {
    for (int i = 0; i < count; ++i)
      ASSERT_EQ(svc::DS_SUCCESS, Service::store("s" + std::to_string(i), "a"));
  }
  Remote::DiscoveryIterator_var query()
  {
    return service->queryDiscoveries(svc::DQ_DISCOVERY_DATA, svc::AT_ANYANDALL, "*", "*");
  }
  Remote::CollectionDataIterator_var open(char const* subject)
  {
    Remote::CollectionDataIterator_var iterator;
    EXPECT_EQ(svc::DS_SUCCESS,
              service->getCollectionData(Service::record(subject, "a"), "", iterator.out()));
    return iterator;
  }
  template <class Iterator>
  static std::vector<unsigned> pages(Iterator& iterator, std::size_t most)
  {
    std::vector<unsigned> lengths;
    while (lengths.size() < most)
    {
      auto* const page = iterator->getNextPage();
      lengths.push_back(page->length());
      delete page;
      if (lengths.back() == 0)
        break;
    }
    return lengths;
  }
};

using Lengths = std::vector<unsigned>;

TEST_F(DiscoveryService_iIteratorsTest, TwentyDiscoveriesComeInPagesOfNineNineAndTwo)
{
  storeMany(20);
  auto iterator = query();
  EXPECT_EQ(8, iterator->pageSize());
  EXPECT_EQ((Lengths{9, 9, 2, 0}), pages(iterator, 10));
  EXPECT_EQ((Lengths{0}), pages(iterator, 10)) << "an exhausted iterator stays empty";
}

TEST_F(DiscoveryService_iIteratorsTest, PageSizeZeroGivesOneRecordAPage)
{
  storeMany(3);
  auto iterator = query();
  iterator->pageSize(0);
  EXPECT_EQ((Lengths{1, 1, 1, 0}), pages(iterator, 10));
}

TEST_F(DiscoveryService_iIteratorsTest, ANegativePageSizeGivesEmptyPages)
{
  storeMany(3);
  auto iterator = query();
  iterator->pageSize(-1);
  EXPECT_EQ(-1, iterator->pageSize());
  EXPECT_EQ((Lengths{0}), pages(iterator, 10));
  iterator->pageSize(8);
  EXPECT_EQ((Lengths{3, 0}), pages(iterator, 10)) << "nothing was lost";
}

TEST_F(DiscoveryService_iIteratorsTest, TheGreatestPageSizeHandsOutEverything)
{
  storeMany(3);
  auto iterator = query();
  iterator->pageSize(std::numeric_limits<CORBA::Long>::max());
  EXPECT_EQ((Lengths{3, 0}), pages(iterator, 10));
}

TEST_F(DiscoveryService_iIteratorsTest, ARecordSaysWhatIsStored)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("subj", "auth", svc::AT_EXTSRC, "<x/>", 9));
  auto iterator = query();
  Remote::DiscoverySeq_var page = iterator->getNextPage();
  ASSERT_EQ(1u, page->length());
  Remote::Discovery const& record = page[0];
  EXPECT_EQ(svc::DQ_UNDEFINED, record.queryType) << "whatever was stored";
  EXPECT_STREQ("subj", record.subject);
  EXPECT_STREQ("auth", record.authority);
  EXPECT_EQ(svc::AT_EXTSRC, record.authType);
  EXPECT_EQ(svc::CT_POINT_IN_TIME, record.attributes.colType);
  EXPECT_EQ(svc::CS_CENTRALREPOSITORY, record.attributes.colStorage);
  EXPECT_EQ(0, record.attributes.priority) << "a record read from its document has none";
  EXPECT_EQ(1000u, record.attributes.discoveryTime);
  EXPECT_NEAR(3600, static_cast<double>(record.attributes.timeToLive), 5);
  EXPECT_STREQ("here", record.sourceHost);
  EXPECT_STREQ("DiscoveryService", record.sourceServiceName);
}

TEST_F(DiscoveryService_iIteratorsTest, ARecordThatIsARemotePullExplorerNamesItsService)
{
  struct Both : FakeDiscovery, svc::RemoteExplorerPull
  {
    Both()
        : FakeDiscovery("far", ""),
          RemoteExplorerPull("FarService", "farhost", "", "", svc::AT_TQUCLIENT)
    {
    }
  };
  AutoDereference<FakeIterator> const local(new FakeIterator);
  local->add(new Both);
  local->add(new FakeDiscovery("near", ""));
  PortableServer::ServantBase_var const owner(new Remote::DiscoveryIterator_i(local.get()));
  auto& servant = dynamic_cast<Remote::DiscoveryIterator_i&>(*owner.in());
  Remote::DiscoverySeq_var page = servant.getNextPage();
  ASSERT_EQ(2u, page->length());
  EXPECT_STREQ("far", page[0].subject);
  EXPECT_STREQ("FarService", page[0].sourceServiceName);
  EXPECT_STREQ("here", page[0].sourceHost) << "this host is asked for it";
  EXPECT_STREQ("DiscoveryService", page[1].sourceServiceName);
}

TEST_F(DiscoveryService_iIteratorsTest, TheNameOfTheHostIsThatOfTheIteratorsMaking)
{
  storeMany(2);
  auto iterator = query();
  iterator->pageSize(0);
  Remote::DiscoverySeq_var before = iterator->getNextPage();
  OzfHostname::overrideLocal("renamed");
  Remote::DiscoverySeq_var after = iterator->getNextPage();
  auto later = query();
  Remote::DiscoverySeq_var ofLater = later->getNextPage();
  OzfHostname::overrideLocal("here");
  ASSERT_EQ(1u, before->length());
  ASSERT_EQ(1u, after->length());
  ASSERT_EQ(2u, ofLater->length());
  EXPECT_STREQ("here", before[0].sourceHost);
  EXPECT_STREQ("here", after[0].sourceHost);
  EXPECT_STREQ("renamed", ofLater[0].sourceHost);
}

TEST_F(DiscoveryService_iIteratorsTest, ThePayloadComesInPagesOfEightBytes)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a", svc::AT_TQUCLIENT, "01234567890123456789"));
  auto iterator = open("s");
  EXPECT_EQ(8, iterator->pageSize());
  EXPECT_EQ((Lengths{8, 8, 4, 0}), pages(iterator, 10));
}

TEST_F(DiscoveryService_iIteratorsTest, APageSizeOfBytesIsHonouredAndBounded)
{
  std::string const payload(3 * MAX_PAGE_BYTES / 2, 'p');
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a", svc::AT_TQUCLIENT, payload));
  auto iterator = open("s");
  iterator->pageSize(7);
  EXPECT_EQ((Lengths{7, 7}), pages(iterator, 2));
  iterator->pageSize(std::numeric_limits<CORBA::Long>::max());
  EXPECT_EQ((Lengths{static_cast<unsigned>(MAX_PAGE_BYTES),
                     static_cast<unsigned>(payload.size() - 14 - MAX_PAGE_BYTES), 0}),
            pages(iterator, 10));
}

TEST_F(DiscoveryService_iIteratorsTest, APageSizeThatIsNotPositiveGivesEmptyPayloadPages)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a", svc::AT_TQUCLIENT, "0123456789"));
  auto iterator = open("s");
  iterator->pageSize(-5);
  EXPECT_EQ((Lengths{0}), pages(iterator, 10));
  iterator->pageSize(0);
  EXPECT_EQ((Lengths{0}), pages(iterator, 10));
  iterator->pageSize(100);
  EXPECT_EQ((Lengths{10, 0}), pages(iterator, 10));
}

TEST_F(DiscoveryService_iIteratorsTest, AReadErrorIsAnEmptyPageAndALogLine)
{
  struct Broken : svc::CollectionData
  {
    int open(svc::OpenMode, char const*) override { return 1; }
    long readCollection(unsigned long, void*) const override { return -1; }
    long writeCollection(unsigned long, void const*) const override { return 0; }
  };
  struct BrokenDiscovery : svc::Discovery
  {
    BrokenDiscovery() : Discovery(new Broken, svc::DQ_DISCOVERY_DATA) {}
    svc::DiscoveryStatus open(svc::OpenMode, char const*) override { return svc::DS_SUCCESS; }
    svc::DiscoveryStatus persist() override { return svc::DS_SUCCESS; }
  };
  AutoDereference<svc::Discovery> discovery(new BrokenDiscovery);
  PortableServer::ServantBase_var const owner(new Remote::CollectionDataIterator_i(discovery));
  auto& iterator = dynamic_cast<Remote::CollectionDataIterator_i&>(*owner.in());
  ASSERT_TRUE(iterator.open(""));
  Remote::CollectionDataSeq_var const page = iterator.getNextPage();
  EXPECT_EQ(0u, page->length());
  EXPECT_TRUE(
      log.has(1, "CollectionDataIterator_i::getNextPage", "Failed to read from CollectionData"))
      << log.text();
  EXPECT_THROW(iterator.getNextPage(), CORBA::PERSIST_STORE) << "it is not the end";
  EXPECT_EQ(2, discovery->referenceCount());
  EXPECT_THROW(iterator.release(), CORBA::PERSIST_STORE);
  EXPECT_EQ(1, discovery->referenceCount()) << "but done";
  EXPECT_THROW(iterator.getNextPage(), CORBA::PERSIST_STORE);
}

TEST_F(DiscoveryService_iIteratorsTest, APayloadWhoseReadingFailsHalfWayIsReadAsNone)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a", svc::AT_TQUCLIENT, "01234567890123456789"));
  auto const wire = []
  {
    auto* const record = new Remote::Discovery(Service::record("s", "a"));
    record->sourceHost = "here";
    record->sourceServiceName = "DiscoveryService";
    return record;
  };
  int reads = 0;
  int failAt = 0;
  SystemCalls const watched(host.database(),
                            [&](std::string const& call)
                            {
                              bool const isRead = call.starts_with("read ");
                              return isRead && ++reads == failAt ? EIO : 0;
                            });
  for (failAt = 1; failAt <= 3; ++failAt)
  {
    AutoDereference<svc::Discovery> const discovery(
        svc::getRemoteDiscoveryDatabase().newDiscovery(wire()));
    reads = 0;
    EXPECT_EQ(svc::DS_OPEN_FAILED, discovery->open(svc::OM_READ, "")) << failAt;
    EXPECT_EQ(failAt, reads);
    EXPECT_EQ(0u, host.orb().getEvictor().size());
  }
  EXPECT_NE(std::string::npos,
            log.text().find("1 RemoteCollectionData::openRead: Caught CORBA Exception while "
                            "reading collection data: PERSIST_STORE"))
      << log.text();
  reads = 100;
  AutoDereference<svc::Discovery> const discovery(
      svc::getRemoteDiscoveryDatabase().newDiscovery(wire()));
  EXPECT_EQ(svc::DS_SUCCESS, discovery->open(svc::OM_READ, "")) << log.text();
}

TEST_F(DiscoveryService_iIteratorsTest, ReleaseDropsTheIteratorAtOnce)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a"));
  auto discoveries = query();
  discoveries->release();
  EXPECT_TRUE(log.has(4, "DiscoveryIterator_i::release", "releasing discovery iterator"));
  EXPECT_THROW(discoveries->getNextPage(), CORBA::OBJECT_NOT_EXIST);

  auto data = open("s");
  data->release();
  EXPECT_TRUE(
      log.has(4, "CollectionDataIterator_i::release", "Releasing collection data iterator"));
  EXPECT_THROW(data->getNextPage(), CORBA::OBJECT_NOT_EXIST);
  EXPECT_EQ(0u, host.orb().getEvictor().size());
}

TEST_F(DiscoveryService_iIteratorsTest, APayloadsIteratorIsGoneAfter300IdleSeconds)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a"));
  auto now = std::make_shared<std::chrono::steady_clock::time_point>();
  Evictor& evictor = host.orb().getEvictor();
  evictor.setClock([now] { return *now; });
  auto iterator = open("s");
  *now += std::chrono::seconds(299);
  evictor.evictIdle();
  EXPECT_EQ(8, iterator->pageSize()) << "the call counts as use";
  *now += std::chrono::seconds(299);
  evictor.evictIdle();
  EXPECT_EQ(1u, evictor.size());
  *now += std::chrono::seconds(2);
  evictor.evictIdle();
  EXPECT_THROW(iterator->getNextPage(), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(DiscoveryService_iIteratorsTest, ReleaseWithoutAnIdStillDropsTheReferences)
{
  AutoDereference<svc::DiscoveryIterator> const local(
      svc::getDiscoveryRepository().queryDiscoveries(svc::DQ_DISCOVERY_DATA, "*", "*",
                                                     svc::AT_ANYANDALL));
  PortableServer::ServantBase_var const owner(new Remote::DiscoveryIterator_i(local.get()));
  auto& servant = dynamic_cast<Remote::DiscoveryIterator_i&>(*owner.in());
  EXPECT_EQ(2, local->referenceCount());
  servant.release();
  EXPECT_TRUE(log.has(1, "removeFromEvictor", "Nothing to be evicted, Object ID is not valid"));
  EXPECT_EQ(1, local->referenceCount());
  EXPECT_THROW(servant.getNextPage(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveryIterator_i::getNextPage",
                      "Assertion failed: NULL != m_discoveryIterator"))
      << log.text();
}

TEST_F(DiscoveryService_iIteratorsTest, ReleaseWithoutAnIdStillDropsThePayload)
{
  AutoDereference<svc::Discovery> discovery(new FakeDiscovery("s", "payload"));
  PortableServer::ServantBase_var const owner(new Remote::CollectionDataIterator_i(discovery));
  auto& servant = dynamic_cast<Remote::CollectionDataIterator_i&>(*owner.in());
  ASSERT_TRUE(servant.open(""));
  EXPECT_EQ(2, discovery->referenceCount());
  servant.release();
  EXPECT_TRUE(log.has(1, "removeFromEvictor", "Nothing to be evicted, Object ID is not valid"))
      << log.text();
  EXPECT_EQ(1, discovery->referenceCount());
  Remote::CollectionDataSeq_var const page = servant.getNextPage();
  EXPECT_EQ(0u, page->length());
}

TEST_F(DiscoveryService_iIteratorsTest, AFailedAssertionReachesARemoteCallerAsInternal)
{
  AutoDereference<svc::DiscoveryIterator> const local(
      svc::getDiscoveryRepository().queryDiscoveries(svc::DQ_DISCOVERY_DATA, "*", "*",
                                                     svc::AT_ANYANDALL));
  PortableServer::ServantBase_var const owner(new Remote::DiscoveryIterator_i(local.get()));
  auto& servant = dynamic_cast<Remote::DiscoveryIterator_i&>(*owner.in());
  servant.release();
  CORBA::Object_var const object = host.orb().activateObject(&servant);
  Remote::DiscoveryIterator_var const reference = Remote::DiscoveryIterator::_narrow(object);
  EXPECT_THROW(reference->getNextPage(), CORBA::INTERNAL);
  EXPECT_EQ(8, reference->pageSize()) << "the service goes on";
}

TEST_F(DiscoveryService_iIteratorsTest, APullExplorersRecordHasNoAttributesOnTheWire)
{
  AutoDereference<FakePull> explorer(new FakePull("p", nullptr, "<pulled/>"));
  svc::getDiscoveryRepository().registerExplorer(new svc::Subject("s"), explorer.get(), 5,
                                                 new svc::Authority("a", svc::AT_TQUCLIENT), true);
  auto iterator = query();
  Remote::DiscoverySeq_var page = iterator->getNextPage();
  ASSERT_EQ(1u, page->length());
  EXPECT_EQ(0, page[0].attributes.priority);
  EXPECT_EQ(0u, page[0].attributes.timeToLive);
  EXPECT_EQ(0u, page[0].attributes.discoveryTime);
}

} // namespace

TEST_F(DiscoveryService_iIteratorsTest, WhereAllIteratorsAreInCallsOneMoreIsARefusalThatIsAudited)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a"));
  host.orb().getEvictor().setLimit(getLimits().iterators);
  overrideConfiguration("LIMIT_ITERATORS", "1");
  reloadConfiguration();
  // Without a time-out it counts as one that is in a call.
  PortableServer::ServantBase_var const busy(
      new Remote::RemoteWriter_i(Service::record("busy", "a")));
  CORBA::OctetSeq_var const id = host.orb().getEvictor().activate(busy.in());
  AuditCapture const audit;
  EXPECT_THROW(service->queryDiscoveries(svc::DQ_DISCOVERY_DATA, svc::AT_ANYANDALL, "s*", "a*"),
               CORBA::NO_RESOURCES);
  Remote::CollectionDataIterator_var iterator;
  EXPECT_EQ(svc::DS_COM_ERROR,
            service->getCollectionData(Service::record("s", "a"), "", iterator.out()));
  EXPECT_TRUE(CORBA::is_nil(iterator));
  EXPECT_TRUE(
      log.has(1, "Evictor::activate", "Refused an object of this service: all of 1 are in calls"))
      << log.text();
  std::string const reason = "refused: all iterators that there may be are in calls";
  EXPECT_TRUE(audit.has("queryDiscoveries", "s*", "a*", reason)) << audit.text();
  EXPECT_TRUE(audit.has("getCollectionData", "s", "a", reason)) << audit.text();
}
