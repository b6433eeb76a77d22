#include "discovery/RemoteDB.h"

#include "ozf/log/Assertion.h"
#include "tests/support/RemoteOperations.h"
#include "tests/support/RemoteService.h"

#include <gtest/gtest.h>

using namespace tqtest;

namespace
{

class RemoteDBTest : public RemoteServiceTest
{
protected:
  AutoDereference<RemoteDiscoveryIterator> makeIterator()
  {
    return AutoDereference<RemoteDiscoveryIterator>(
        new RemoteDiscoveryIterator(AT_TQUCLIENT, "sub*", "auth*", m_service->records));
  }
};

// The creator on hosts of both roles, which need no service.
class RemoteDBRoleTest : public testing::Test
{
protected:
  RemoteDBRoleTest()
  {
    std::filesystem::create_directories(m_root / "etc");
    setenv("TESSARINE_ROOT", m_root.path().c_str(), 1);
  }
  ~RemoteDBRoleTest() override { unsetenv("TESSARINE_ROOT"); }

  void configure(std::string const& server)
  {
    writeText(m_root / "etc/tq.conf", "CLIENT_NAME = clienthost\nSERVER = " + server + "\n");
    EXPECT_TRUE(reloadConfiguration());
  }

  TempDir m_root;
  LogCapture m_log;
};

} // namespace

TEST_F(RemoteDBRoleTest, CreatorAsksForTheRoleWhenItIsMade)
{
  configure("clienthost");
  EXPECT_TRUE(RemoteDBCreator().isMaster());
  EXPECT_TRUE(m_log.has(4, "RemoteDBCreator::setIsMaster", "isMaster: 1")) << m_log.text();

  configure("192.0.2.1");
  EXPECT_FALSE(RemoteDBCreator().isMaster());
  EXPECT_TRUE(m_log.has(4, "RemoteDBCreator::setIsMaster", "isMaster: 0")) << m_log.text();
}

TEST_F(RemoteDBRoleTest, CreatorTakesUpAChangedRole)
{
  configure("192.0.2.1");
  RemoteDBCreator creator;
  configure("clienthost");
  EXPECT_FALSE(creator.isMaster());
  creator.setIsMaster();
  EXPECT_TRUE(creator.isMaster());
}

TEST_F(RemoteDBRoleTest, ThereIsOneCreator)
{
  configure("192.0.2.1");
  EXPECT_EQ(&getRemoteDiscoveryDatabase(), &getRemoteDiscoveryDatabase());
}

TEST_F(RemoteDBRoleTest, CreatorHasNoIterator)
{
  configure("192.0.2.1");
  EXPECT_THROW(getRemoteDiscoveryDatabase().getIterator(DQ_DISCOVERY_DATA), AssertionFailure);
  EXPECT_TRUE(m_log.has(1, "RemoteDBCreator::getIterator", "Assertion failed: SHOULD_NOT_GET_HERE"))
      << m_log.text();
}

TEST_F(RemoteDBRoleTest, NewDiscoveryIsEmptyAndOfItsKind)
{
  configure("192.0.2.1");
  AutoDereference<Discovery> const discovery(
      getRemoteDiscoveryDatabase().newDiscovery(DQ_FILTER_DATA));
  EXPECT_EQ(discovery->referenceCount(), 1);
  EXPECT_EQ(discovery->getQuery(), DQ_FILTER_DATA);
  EXPECT_EQ(discovery->getSubject(), nullptr);
  EXPECT_EQ(discovery->getAuthority(), nullptr);
  EXPECT_EQ(discovery->getAttributes(), nullptr);
  EXPECT_NE(dynamic_cast<RemoteCollectionData*>(discovery->getCollectionData()), nullptr);
}

TEST_F(RemoteDBRoleTest, PersistingWhatWasNotOpenedFailsAnAssertion)
{
  configure("192.0.2.1");
  AutoDereference<Discovery> const discovery(
      getRemoteDiscoveryDatabase().newDiscovery(DQ_FILTER_DATA));
  EXPECT_THROW(discovery->persist(), AssertionFailure);
  EXPECT_TRUE(m_log.has(1, "RemoteDiscovery::persist", "Assertion failed: NULL != cd->m_writer"))
      << m_log.text();
}

TEST_F(RemoteDBRoleTest, WritingOrReadingWhatWasNotOpenedFailsAnAssertion)
{
  configure("192.0.2.1");
  RemoteCollectionData data(DQ_DISCOVERY_DATA);
  char buffer[1];
  EXPECT_THROW(data.writeCollection(1, "x"), AssertionFailure);
  EXPECT_THROW(data.readCollection(1, buffer), AssertionFailure);
  EXPECT_THROW(data.open(OM_READ, ""), AssertionFailure);
  EXPECT_TRUE(
      m_log.has(1, "RemoteCollectionData::writeCollection", "Assertion failed: NULL != m_writer"))
      << m_log.text();
  EXPECT_TRUE(m_log.has(1, "RemoteCollectionData::readCollection", "Assertion failed: m_cached"))
      << m_log.text();
  EXPECT_TRUE(
      m_log.has(1, "RemoteCollectionData::openRead", "Assertion failed: 0 != m_discovery.ptr()"))
      << m_log.text();
}

TEST_F(RemoteDBRoleTest, WithoutAMasterNothingCanBeWritten)
{
  writeText(m_root / "etc/tq.conf", "CLIENT_NAME = clienthost\n");
  ASSERT_TRUE(reloadConfiguration());
  RemoteCollectionData data(DQ_DISCOVERY_DATA);
  EXPECT_EQ(data.open(OM_UPDATE, ""), 0);
  EXPECT_TRUE(
      m_log.has(1, "RemoteCollectionData::openWrite", "Failed to connect to discovery service"))
      << m_log.text();
}

TEST_F(RemoteDBTest, RecordBecomesADiscovery)
{
  OzfObjTime::setClock([] { return OzfObjTime(5000); });
  auto record = makeRecord("hostA", "volume");
  record.queryType = DQ_FILTER_DATA;
  AutoDereference<Discovery> const discovery(
      getRemoteDiscoveryDatabase().newDiscovery(new Remote::Discovery(record)));
  OzfObjTime::setClock(nullptr);
  EXPECT_EQ(discovery->referenceCount(), 1);
  EXPECT_EQ(discovery->getQuery(), DQ_FILTER_DATA);
  EXPECT_EQ(discovery->getSubject()->getName().str(), "hostA");
  EXPECT_EQ(discovery->getAuthority()->getName().str(), "volume");
  EXPECT_EQ(discovery->getAuthority()->getType(), AT_TQUCLIENT);
  auto const* const attributes = discovery->getAttributes();
  ASSERT_NE(attributes, nullptr);
  EXPECT_EQ(attributes->getType(), CT_POINT_IN_TIME);
  EXPECT_EQ(attributes->getStorage(), CS_CENTRALREPOSITORY);
  EXPECT_EQ(attributes->getPriority(), 3U);
  EXPECT_EQ(attributes->getDiscoveryTime(), OzfObjTime(1000));
  EXPECT_EQ(attributes->getValidityInterval(), OzfObjTime(400));
  EXPECT_EQ(attributes->getExpiresTime(), OzfObjTime(5500));
}

TEST_F(RemoteDBTest, IteratorFetchesEverythingBeforeTheFirstDiscoveryIsAsked)
{
  auto* const pages = serveRecords({{makeRecord("a"), makeRecord("b")}, {makeRecord("c")}});
  auto const iterator = makeIterator();
  EXPECT_EQ(pages->pagesAsked, 3);
  EXPECT_EQ(pages->releases, 1);
  EXPECT_EQ(iterator->failure(), "");
  EXPECT_EQ(iterator->getAuthorityType(), AT_TQUCLIENT);
  EXPECT_EQ(iterator->getSubjectFilter(), "sub*");
  EXPECT_EQ(iterator->getAuthorityFilter(), "auth*");
  for (char const* subject : {"a", "b", "c"})
  {
    AutoDereference<Discovery> const discovery(iterator->getNext());
    ASSERT_TRUE(discovery);
    EXPECT_EQ(discovery->getSubject()->getName().str(), subject);
  }
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(pages->pagesAsked, 3);
}

TEST_F(RemoteDBTest, IteratorAsksForPagesOfTheConfiguredSizeAndTakesAnyOther)
{
  auto* const pages =
      serveRecords({std::vector(3, makeRecord("a")), {makeRecord("b")}, {makeRecord("c")}});
  std::vector<long> asked;
  pages->takePageSize = [&](long size)
  {
    EXPECT_EQ(pages->pagesAsked, 0);
    asked.push_back(size);
  };
  configure("DISCOVERY_PAGE_SIZE = 500\n");
  auto const iterator = makeIterator();
  EXPECT_EQ(asked, std::vector<long>{500});
  EXPECT_EQ(iterator->failure(), "");
  std::string subjects;
  while (AutoDereference<Discovery> const discovery{iterator->getNext()})
    subjects += discovery->getSubject()->getName().str();
  EXPECT_EQ(subjects, "aaabc");
}

TEST_F(RemoteDBTest, IteratorUnderstandsAPeerThatRefusesThePageSize)
{
  auto* const pages = serveRecords({{makeRecord("a")}, {makeRecord("b")}});
  configure("DISCOVERY_PAGE_SIZE = 500\n");
  for (std::function<void()> const& refuse :
       std::initializer_list<std::function<void()>>{
           [] { throw CORBA::NO_IMPLEMENT(0, CORBA::COMPLETED_NO); },
           [] { throw CORBA::BAD_OPERATION(0, CORBA::COMPLETED_NO); },
           [] { throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO); },
           [] { throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO); },
           [] { throw CORBA::UNKNOWN(0, CORBA::COMPLETED_NO); }})
  {
    pages->takePageSize = [&refuse](long) { refuse(); };
    pages->pagesAsked = 0;
    auto const iterator = makeIterator();
    EXPECT_EQ(iterator->failure(), "");
    EXPECT_EQ(pages->pagesAsked, 3);
    EXPECT_TRUE(AutoDereference<Discovery>(iterator->getNext()));
  }
  pages->takePageSize = [](long) { throw CORBA::COMM_FAILURE(0, CORBA::COMPLETED_NO); };
  EXPECT_NE(makeIterator()->failure(), "");
}

TEST_F(RemoteDBTest, IteratorOverNothingIsAtItsEnd)
{
  auto* const pages = serveRecords({});
  auto const iterator = makeIterator();
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(iterator->failure(), "");
  EXPECT_EQ(pages->releases, 1);
}

TEST_F(RemoteDBTest, IteratorDropsAnAnswerThatBreaksOff)
{
  auto* const pages = serveRecords({{makeRecord("a")}, {makeRecord("b")}});
  pages->beforePage = [pages]
  {
    if (pages->pagesAsked == 1)
      throw CORBA::NO_RESOURCES();
  };
  auto const iterator = makeIterator();
  EXPECT_NE(iterator->failure().find("NO_RESOURCES"), std::string::npos);
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(pages->releases, 1);
  EXPECT_TRUE(
      m_log.has(1, RemoteOperations::FETCH, "Failed to fetch discoveries: " + iterator->failure()))
      << m_log.text();
}

TEST_F(RemoteDBTest, IteratorGivesUpOnMoreBytesThanItKeeps)
{
  std::string const longName(60'000, 'n');
  auto* const pages = serveRecords({});
  pages->pages = {std::vector<Remote::Discovery>(32, makeRecord(longName.c_str()))};
  pages->endless = true;
  auto const iterator = makeIterator();
  EXPECT_EQ(iterator->failure(), "more than 268435456 bytes of discoveries");
  EXPECT_EQ(iterator->getNext(), nullptr) << "what was fetched is dropped";
  EXPECT_EQ(pages->releases, 1);
  EXPECT_LT(pages->pagesAsked, 150);
  EXPECT_TRUE(
      m_log.has(1, RemoteOperations::FETCH, "Failed to fetch discoveries: " + iterator->failure()));
}

TEST_F(RemoteDBTest, IteratorSwallowsAFailedRelease)
{
  auto* const pages = serveRecords({{makeRecord("a")}});
  pages->beforeRelease = [] { throw CORBA::NO_RESOURCES(); };
  auto const iterator = makeIterator();
  EXPECT_EQ(pages->releases, 1);
  EXPECT_EQ(iterator->failure(), "");
  EXPECT_TRUE(AutoDereference<Discovery>(iterator->getNext()));
}

TEST_F(RemoteDBTest, IteratorOverANilReferenceFails)
{
  AutoDereference<RemoteDiscoveryIterator> const iterator(
      new RemoteDiscoveryIterator(AT_TQUCLIENT, "", "", Remote::DiscoveryIterator::_nil()));
  EXPECT_NE(iterator->failure(), "");
  EXPECT_EQ(iterator->getNext(), nullptr);
}

TEST_F(RemoteDBTest, IteratorPassesOverRecordsWithoutUsableNames)
{
  std::string const tooLong(100'000, 'x');
  serveRecords({{makeRecord("", "authority"), makeRecord("subject", ""),
                 makeRecord(tooLong.c_str()), makeRecord("good")}});
  auto const iterator = makeIterator();
  AutoDereference<Discovery> const discovery(iterator->getNext());
  ASSERT_TRUE(discovery);
  EXPECT_EQ(discovery->getSubject()->getName().str(), "good");
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(m_log.count(1, "RemoteDiscoveryIterator::getNext",
                        "Passed over a discovery from localhost with an unusable subject or "
                        "authority name"),
            3)
      << m_log.text();
}

TEST_F(RemoteDBTest, PersistGivesWhatTheMasterSays)
{
  auto* const writer = serveWriter();
  for (DiscoveryStatus const status : {DS_SUCCESS, DS_DATA_EXISTS, DS_LOGIC_ERROR})
  {
    writer->closeStatus = status;
    AutoDereference<Discovery> const discovery(
        getRemoteDiscoveryDatabase().newDiscovery(DQ_DISCOVERY_DATA));
    discovery->setSubject(new Subject("s"));
    discovery->setAuthority(new Authority("a", AT_TQUCLIENT));
    ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
    EXPECT_EQ(discovery->persist(), status);
    EXPECT_THROW(discovery->persist(), AssertionFailure) << "the writer is gone";
  }
  EXPECT_EQ(writer->closes, 3);
}

TEST_F(RemoteDBTest, PersistReportsACommunicationError)
{
  auto* const writer = serveWriter();
  writer->beforeClose = [] { throw CORBA::NO_RESOURCES(); };
  AutoDereference<Discovery> const discovery(
      getRemoteDiscoveryDatabase().newDiscovery(DQ_DISCOVERY_DATA));
  discovery->setSubject(new Subject("s"));
  discovery->setAuthority(new Authority("a", AT_TQUCLIENT));
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(discovery->persist(), DS_COM_ERROR);
  EXPECT_NE(m_log.text().find("1 RemoteDiscovery::persist: Caught CORBA Exception while "
                              "persisting discoveries: NO_RESOURCES"),
            std::string::npos)
      << m_log.text();
}
