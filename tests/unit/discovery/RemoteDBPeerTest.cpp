// Peers that do not keep to the contract: objects of another kind, objects that
// go away between two calls, pages of any size. What is read is dropped, what is
// written is reported as failed, and nothing escapes.

#include "discovery/RemoteDB.h"
#include "ozf/log/Assertion.h"
#include "tests/support/RemoteOperations.h"
#include "tests/support/RemoteService.h"

#include <gtest/gtest.h>

using namespace tqtest;

namespace
{

class RemoteDBPeerTest : public RemoteServiceTest
{
protected:
  RemoteDBPeerTest() : RemoteServiceTest("COLLECTION_PAGE_SIZE = 16\n") {}

  static AutoDereference<Discovery> reader()
  {
    return AutoDereference<Discovery>(
        getRemoteDiscoveryDatabase().newDiscovery(new Remote::Discovery(makeRecord())));
  }
  static AutoDereference<Discovery> writer()
  {
    AutoDereference<Discovery> discovery(
        getRemoteDiscoveryDatabase().newDiscovery(DQ_DISCOVERY_DATA));
    discovery->setSubject(new Subject("subject"));
    discovery->setAuthority(new Authority("authority", AT_TQUCLIENT));
    return discovery;
  }

  // As a query does.
  AutoDereference<RemoteDiscoveryIterator> query()
  {
    OzfHostname host;
    host.setHostname(MASTER);
    Remote::DiscoveryService_var const service =
        getDiscoveryRepository().connectToRemoteDiscoveryService(host, SERVICE);
    Remote::DiscoveryIterator_var const records =
        service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_TQUCLIENT, "*", "*");
    return AutoDereference<RemoteDiscoveryIterator>(
        new RemoteDiscoveryIterator(AT_TQUCLIENT, "*", "*", records));
  }

  bool hasLine(char const* operation, std::string const& beginning) const
  {
    return m_log.text().find("1 " + std::string(operation) + ": " + beginning) != std::string::npos;
  }

  // The object is gone before the next call, as after a restart of its service.
  void vanish(CORBA::Object_ptr object) { m_orb->destroyObjectRef(object); }
};

} // namespace

// Objects of another kind: the reference says one thing, the object is another.

TEST_F(RemoteDBPeerTest, RecordsOfAnotherInterfaceAreAFailure)
{
  serveWriter();
  m_service->records = Remote::DiscoveryIterator::_unchecked_narrow(m_service->writer);
  auto const iterator = query();
  EXPECT_NE(iterator->failure(), "");
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_TRUE(hasLine(RemoteOperations::FETCH, "Failed to fetch discoveries: ")) << m_log.text();
}

TEST_F(RemoteDBPeerTest, DataOfAnotherInterfaceIsAFailure)
{
  serveWriter();
  m_service->data = Remote::CollectionDataIterator::_unchecked_narrow(m_service->writer);
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(hasLine(RemoteOperations::OPEN_READ,
                      "Caught CORBA Exception while reading collection data: "))
      << m_log.text();
}

// Both have pages and a release, but of other things.
TEST_F(RemoteDBPeerTest, RecordsInPlaceOfDataAreAFailure)
{
  auto* const records = serveRecords({{makeRecord()}});
  m_service->data = Remote::CollectionDataIterator::_unchecked_narrow(m_service->records);
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(hasLine(RemoteOperations::OPEN_READ,
                      "Caught CORBA Exception while reading collection data: "))
      << m_log.text();
  EXPECT_EQ(records->pagesAsked, 0) << "the ORB asks the object first what it is";
}

TEST_F(RemoteDBPeerTest, AWriterOfAnotherInterfaceFailsTheFirstPiece)
{
  serveData({"data"});
  m_service->writer = Remote::RemoteWriter::_unchecked_narrow(m_service->data);
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(discovery->getCollectionData()->writeCollection(3, "abc"), 0);
  EXPECT_TRUE(hasLine(RemoteOperations::WRITE, "Caught CORBA Exception during remote write: "))
      << m_log.text();
  EXPECT_EQ(discovery->persist(), DS_COM_ERROR);
  EXPECT_TRUE(
      hasLine(RemoteOperations::PERSIST, "Caught CORBA Exception while persisting discoveries: "))
      << m_log.text();
}

// Only close ends a writer, and close stores.
TEST_F(RemoteDBPeerTest, OpeningForUpdateAgainKeepsAWriterThatHasBeenGivenNothing)
{
  serveWriter();
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(m_service->written.size(), 1U) << "no first writer is left behind";
  EXPECT_EQ(discovery->getCollectionData()->writeCollection(3, "abc"), 1);
  EXPECT_EQ(discovery->persist(), DS_SUCCESS);
}

TEST_F(RemoteDBPeerTest, OpeningForUpdateAgainTakesANewWriterForAnotherRecordOrAWriterThatIsGone)
{
  auto* const first = serveWriter();
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  discovery->setSubject(new Subject("another"));
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  ASSERT_EQ(m_service->written.size(), 2U);
  EXPECT_STREQ(m_service->written.back().subject, "another");

  vanish(m_service->writer);
  auto* const second = serveWriter();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(m_service->written.size(), 3U);
  EXPECT_EQ(discovery->getCollectionData()->writeCollection(3, "abc"), 1);
  EXPECT_TRUE(first->chunks.empty());
  EXPECT_EQ(second->chunks.size(), 1U);
}

// Closing the first would store a part of a payload as the whole, and there is
// no other way to end it.
TEST_F(RemoteDBPeerTest, OpeningForUpdateAgainLeavesAWriterThatHasBeenGivenSomethingUnclosed)
{
  auto* const first = serveWriter();
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(discovery->getCollectionData()->writeCollection(3, "abc"), 1);
  auto* const second = serveWriter();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(discovery->getCollectionData()->writeCollection(3, "xyz"), 1);
  EXPECT_EQ(discovery->persist(), DS_SUCCESS);
  EXPECT_EQ(first->closes, 0);
  EXPECT_EQ(second->closes, 1);
  EXPECT_EQ(second->chunks, std::vector<std::string>{"xyz"});
}

// Objects that go away.

TEST_F(RemoteDBPeerTest, RecordsThatVanishAfterAPageAreAFailure)
{
  auto* const pages = serveRecords({{makeRecord("a")}, {makeRecord("b")}});
  pages->beforePage = [this, pages]
  {
    if (pages->pagesAsked == 0)
      vanish(m_service->records);
  };
  auto const iterator = query();
  EXPECT_NE(iterator->failure().find("OBJECT_NOT_EXIST"), std::string::npos) << iterator->failure();
  EXPECT_EQ(iterator->getNext(), nullptr) << "half an answer is none";
  EXPECT_EQ(pages->pagesAsked, 1);
}

TEST_F(RemoteDBPeerTest, RecordsThatVanishBeforeTheFirstPageAreAFailure)
{
  serveRecords({{makeRecord("a")}});
  vanish(m_service->records);
  auto const iterator = query();
  EXPECT_NE(iterator->failure(), "");
  EXPECT_EQ(iterator->getNext(), nullptr);
}

TEST_F(RemoteDBPeerTest, DataThatVanishesAfterAPageIsAFailure)
{
  auto* const pages = serveData({"one", "two"});
  pages->beforePage = [this, pages]
  {
    if (pages->pagesAsked == 0)
      vanish(m_service->data);
  };
  auto const discovery = reader();
  EXPECT_EQ(discovery->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(hasLine(RemoteOperations::OPEN_READ,
                      "Caught CORBA Exception while reading collection data: OBJECT_NOT_EXIST"))
      << m_log.text();
  char byte = 0;
  EXPECT_THROW(discovery->getCollectionData()->readCollection(1, &byte), AssertionFailure)
      << "half a payload is none";
}

TEST_F(RemoteDBPeerTest, AWriterThatVanishesFailsTheNextPiece)
{
  auto* const servant = serveWriter();
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_NE(discovery->getCollectionData()->writeCollection(3, "abc"), 0);
  vanish(m_service->writer);
  EXPECT_EQ(discovery->getCollectionData()->writeCollection(3, "def"), 0);
  EXPECT_TRUE(hasLine(RemoteOperations::WRITE,
                      "Caught CORBA Exception during remote write: OBJECT_NOT_EXIST"))
      << m_log.text();
  EXPECT_EQ(servant->chunks.size(), 1U);
}

TEST_F(RemoteDBPeerTest, AWriterThatVanishesBeforeItsCloseIsACommunicationError)
{
  auto* const servant = serveWriter();
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  vanish(m_service->writer);
  EXPECT_EQ(discovery->persist(), DS_COM_ERROR);
  EXPECT_TRUE(hasLine(RemoteOperations::PERSIST,
                      "Caught CORBA Exception while persisting discoveries: "
                      "OBJECT_NOT_EXIST"))
      << m_log.text();
  EXPECT_EQ(servant->closes, 0);
}

// The host still answers, but not for a service of that name.
TEST_F(RemoteDBPeerTest, AServiceThatVanishesCannotBeReached)
{
  serveData({"data"});
  ASSERT_EQ(reader()->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  PortableServer::ServantBase_var const other = new NotingWriter;
  CORBA::Object_var const reference = m_orb->activateObject(other.in());
  m_orb->advertiseObject(SERVICE, reference);
  vanish(reference);
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_EQ(
      m_log.count(1, RemoteOperations::CONNECT, "Failed to connect to remote discovery service."),
      1)
      << m_log.text();
  EXPECT_EQ(m_log.count(1, RemoteOperations::OPEN_READ, "Failed to connect to discovery service"),
            1);
}

// What the release of pages that were read to their end says.

TEST_F(RemoteDBPeerTest, AReleaseThatTellsOfAReadErrorIsAFailure)
{
  auto* const pages = serveData({"one"});
  pages->beforeRelease = [] { throw CORBA::PERSIST_STORE(0, CORBA::COMPLETED_YES); };
  auto const discovery = reader();
  EXPECT_EQ(discovery->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(hasLine(RemoteOperations::OPEN_READ,
                      "Caught CORBA Exception while reading collection data: PERSIST_STORE"))
      << m_log.text();
  EXPECT_EQ(pages->releases, 1);
  char byte = 0;
  EXPECT_THROW(discovery->getCollectionData()->readCollection(1, &byte), AssertionFailure)
      << "half a payload is none";
}

TEST_F(RemoteDBPeerTest, AReleaseThatFailsOtherwiseSaysNothingOfWhatWasRead)
{
  auto* const pages = serveData({"one"});
  pages->beforeRelease = [] { throw CORBA::INTERNAL(0, CORBA::COMPLETED_NO); };
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  pages->beforeRelease = [this] { vanish(m_service->data); };
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(pages->releases, 2);
}

// Pages.

TEST_F(RemoteDBPeerTest, PagesLargerThanWhatWasAskedForAreRead)
{
  std::string const large(1 << 20, 'x');
  auto* const pages = serveData({large, "y"});
  auto const discovery = reader();
  ASSERT_EQ(discovery->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(pages->pageSizeSet, 16);
  std::string bytes(large.size() + 10, '\0');
  EXPECT_EQ(discovery->getCollectionData()->readCollection(bytes.size(), bytes.data()),
            static_cast<long>(large.size() + 1));
  bytes.resize(large.size() + 1);
  EXPECT_EQ(bytes, large + "y");
}

// The first empty page is the end, whatever would follow.
TEST_F(RemoteDBPeerTest, EmptyPagesWithoutEndAreReadOnce)
{
  auto* const records = serveRecords({{makeRecord("a")}, {}, {makeRecord("b")}});
  auto const iterator = query();
  EXPECT_EQ(iterator->failure(), "");
  EXPECT_TRUE(AutoDereference<Discovery>(iterator->getNext()));
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(records->pagesAsked, 2);
  EXPECT_EQ(records->releases, 1);

  auto* const data = serveData({"one", "", "two"});
  auto const discovery = reader();
  ASSERT_EQ(discovery->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  char buffer[100];
  EXPECT_EQ(discovery->getCollectionData()->readCollection(sizeof buffer, buffer), 3);
  EXPECT_EQ(data->pagesAsked, 2);
  EXPECT_EQ(data->releases, 1);
}

TEST_F(RemoteDBPeerTest, RecordsWithoutEndAreGivenUp)
{
  constexpr std::size_t PAGE = 20'000;
  auto* const pages = serveRecords({std::vector<Remote::Discovery>(PAGE, makeRecord("s", "a"))});
  pages->endless = true;
  auto const iterator = query();
  EXPECT_EQ(iterator->failure(), "more than 1000000 discoveries");
  EXPECT_EQ(iterator->getNext(), nullptr) << "what was fetched is dropped";
  EXPECT_EQ(pages->pagesAsked, static_cast<int>(RemoteDiscoveryIterator::MAX_RECORDS / PAGE + 1));
  EXPECT_EQ(pages->releases, 1);
}

// Misuse by this side's own code.

TEST_F(RemoteDBPeerTest, ADiscoveryWithAPayloadOfAnotherStoreFailsAnAssertion)
{
  struct OtherData : CollectionData
  {
    int open(OpenMode, char const*) override { return 1; }
    long readCollection(unsigned long, void*) const override { return 0; }
    long writeCollection(unsigned long, void const*) const override { return 1; }
  };
  AutoDereference<RemoteDiscovery> const discovery(
      new RemoteDiscovery(new OtherData, DQ_DISCOVERY_DATA));
  EXPECT_THROW(discovery->setSubject(new Subject("s")), AssertionFailure);
  EXPECT_THROW(discovery->setAuthority(new Authority("a", AT_TQUCLIENT)), AssertionFailure);
  EXPECT_THROW(discovery->setAttributes(new CollectionAttributes(CT_REAL_TIME, CS_CENTRALREPOSITORY,
                                                                 OzfObjTime(1), OzfObjTime(1), 1)),
               AssertionFailure);
  EXPECT_THROW(discovery->persist(), AssertionFailure);
  for (char const* operation : {"RemoteDiscovery::setSubject", "RemoteDiscovery::setAuthority",
                                "RemoteDiscovery::setAttributes", "RemoteDiscovery::persist"})
    EXPECT_EQ(m_log.count(1, operation, "Assertion failed: NULL != cd"), 1) << operation;

  AutoDereference<RemoteDiscovery> const empty(new RemoteDiscovery(nullptr, DQ_DISCOVERY_DATA));
  EXPECT_THROW(empty->open(OM_READ, ""), AssertionFailure);
  EXPECT_EQ(m_log.count(1, "RemoteDiscovery::open", "Assertion failed: getCollectionData()"), 1)
      << m_log.text();
}
